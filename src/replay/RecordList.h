#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <iterator>
#include <memory>
#include <vector>

// The replay buffer keeps its records in fixed-size chunks that are shared, never copied: a
// snapshot takes references to the chunks (a few hundred for a full two-minute buffer), not to
// each record, so it costs microseconds however long the buffer is.
//
// Records are only ever appended into free slots past the end and dropped from the front; a
// slot, once written, is never written again. A snapshot therefore reads only slots that no
// writer touches any more, and the writer's lock (the replay buffer's) orders the two.
template<typename T> struct RecordChunk
{
    static constexpr size_t capacity = 64;
    std::array<T, capacity> items;
};

// A read-only run of records, as a snapshot holds it.
template<typename T> class RecordList
{
public:
    using Chunk = RecordChunk<T>;

    RecordList() = default;
    RecordList(std::vector<std::shared_ptr<const Chunk>> chunks, size_t offset, size_t size)
        : m_chunks(std::move(chunks))
        , m_offset(offset)
        , m_size(size)
    {
    }

    size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    const T &operator[](size_t i) const
    {
        const size_t slot = m_offset + i;
        return m_chunks[slot / Chunk::capacity]->items[slot % Chunk::capacity];
    }
    const T &front() const { return (*this)[0]; }
    const T &back() const { return (*this)[m_size - 1]; }

    class const_iterator
    {
    public:
        using iterator_category = std::random_access_iterator_tag;
        using value_type = T;
        using difference_type = std::ptrdiff_t;
        using pointer = const T *;
        using reference = const T &;

        const_iterator() = default;
        const_iterator(const RecordList *list, size_t index)
            : m_list(list)
            , m_index(index)
        {
        }
        reference operator*() const { return (*m_list)[m_index]; }
        pointer operator->() const { return &(*m_list)[m_index]; }
        reference operator[](difference_type n) const
        {
            return (*m_list)[size_t(difference_type(m_index) + n)];
        }
        const_iterator &operator++()
        {
            ++m_index;
            return *this;
        }
        const_iterator operator++(int)
        {
            auto old = *this;
            ++m_index;
            return old;
        }
        const_iterator &operator--()
        {
            --m_index;
            return *this;
        }
        const_iterator operator--(int)
        {
            auto old = *this;
            --m_index;
            return old;
        }
        const_iterator &operator+=(difference_type n)
        {
            m_index = size_t(difference_type(m_index) + n);
            return *this;
        }
        const_iterator &operator-=(difference_type n) { return *this += -n; }
        friend const_iterator operator+(const_iterator it, difference_type n) { return it += n; }
        friend const_iterator operator+(difference_type n, const_iterator it) { return it += n; }
        friend const_iterator operator-(const_iterator it, difference_type n) { return it -= n; }
        friend difference_type operator-(const const_iterator &a, const const_iterator &b)
        {
            return difference_type(a.m_index) - difference_type(b.m_index);
        }
        friend bool operator==(const const_iterator &a, const const_iterator &b)
        {
            return a.m_index == b.m_index;
        }
        friend auto operator<=>(const const_iterator &a, const const_iterator &b)
        {
            return a.m_index <=> b.m_index;
        }

    private:
        const RecordList *m_list = nullptr;
        size_t m_index = 0;
    };

    const_iterator begin() const { return {this, 0}; }
    const_iterator end() const { return {this, m_size}; }

private:
    std::vector<std::shared_ptr<const Chunk>> m_chunks;
    size_t m_offset = 0; // of the first record in the first chunk
    size_t m_size = 0;
};

// The writing side: appends at the back, drops from the front. Not thread-safe by itself; the
// replay buffer holds its lock around every call.
template<typename T> class RecordStore
{
public:
    using Chunk = RecordChunk<T>;

    size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    const T &operator[](size_t i) const
    {
        const size_t slot = m_offset + i;
        return m_chunks[slot / Chunk::capacity]->items[slot % Chunk::capacity];
    }
    const T &front() const { return (*this)[0]; }
    const T &back() const { return (*this)[m_size - 1]; }

    void push_back(T record)
    {
        const size_t slot = m_offset + m_size;
        if (slot == m_chunks.size() * Chunk::capacity)
            m_chunks.push_back(std::make_shared<Chunk>());
        m_chunks[slot / Chunk::capacity]->items[slot % Chunk::capacity] = std::move(record);
        ++m_size;
    }

    // Drops the first `count` records. Their chunk goes (with its payloads) once no record of
    // it is left here and no snapshot holds it.
    void erasePrefix(size_t count)
    {
        count = std::min(count, m_size);
        m_offset += count;
        m_size -= count;
        while (m_offset >= Chunk::capacity) {
            m_chunks.pop_front();
            m_offset -= Chunk::capacity;
        }
        if (m_size == 0)
            clear();
    }

    void clear()
    {
        m_chunks.clear();
        m_offset = 0;
        m_size = 0;
    }

    RecordList<T> view() const
    {
        return {std::vector<std::shared_ptr<const Chunk>>(m_chunks.begin(), m_chunks.end()),
                m_offset, m_size};
    }

private:
    std::deque<std::shared_ptr<Chunk>> m_chunks;
    size_t m_offset = 0;
    size_t m_size = 0;
};
