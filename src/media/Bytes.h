#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>

class BytesArena;

// An immutable, reference-counted byte buffer: media payloads are copied into one exactly once
// (out of the capture's or the encoder's own buffers), and every later holder (the replay
// buffer, a snapshot, the session recorder) shares it. Data and count live in one allocation, or
// in an arena's block.
class Bytes
{
public:
    Bytes() = default;

    // With an arena, the bytes live in its blocks (see BytesArena) rather than the heap.
    static Bytes copy(std::span<const uint8_t> data, BytesArena *arena = nullptr);
    // The pieces one after another, in order; empty pieces are skipped.
    static Bytes concat(std::initializer_list<std::span<const uint8_t>> pieces);
    template<typename Range> static Bytes concatRange(const Range &pieces,
                                                      BytesArena *arena = nullptr)
    {
        size_t total = 0;
        for (std::span<const uint8_t> piece : pieces)
            total += piece.size();
        Bytes out = allocate(total, arena);
        uint8_t *cursor = out.m_writable;
        for (std::span<const uint8_t> piece : pieces)
            cursor = copyInto(cursor, piece);
        out.m_writable = nullptr;
        return out;
    }

    const uint8_t *data() const { return m_data.get(); }
    size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    std::span<const uint8_t> span() const { return {m_data.get(), m_size}; }

private:
    static Bytes allocate(size_t size, BytesArena *arena);
    static uint8_t *copyInto(uint8_t *cursor, std::span<const uint8_t> piece);

    std::shared_ptr<const uint8_t[]> m_data;
    size_t m_size = 0;
    uint8_t *m_writable = nullptr; // only while being filled by a factory
};
