#pragma once

#include <cstdint>
#include <mutex>

// How many of a fixed set of parties have not finished yet; the party that brings it to zero
// learns so from decrement().
class Remaining
{
public:
    explicit Remaining(int64_t value)
        : m_value(value)
    {
    }

    // Returns the value after the decrement.
    int64_t decrement()
    {
        std::scoped_lock lock(m_lock);
        return --m_value;
    }

    int64_t value() const
    {
        std::scoped_lock lock(m_lock);
        return m_value;
    }

private:
    mutable std::mutex m_lock;
    int64_t m_value; // guarded by m_lock
};
