#pragma once

#include <cstdint>
#include <mutex>

// A count that several callbacks add to and one reads at the end.
class Counter
{
public:
    void increment()
    {
        std::scoped_lock lock(m_lock);
        ++m_count;
    }

    int64_t count() const
    {
        std::scoped_lock lock(m_lock);
        return m_count;
    }

private:
    mutable std::mutex m_lock;
    int64_t m_count = 0; // guarded by m_lock
};
