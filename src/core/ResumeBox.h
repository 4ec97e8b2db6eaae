#pragma once

#include <mutex>

// A one-shot guard: of several callbacks racing to answer one waiting operation, only the first
// runs its body. The body runs while the box's lock is held, so a second caller waits until the
// first answer is complete before it learns that it lost; keep bodies short and never resume the
// same box from inside a body.
class ResumeBox
{
public:
    // Runs `body` if no body has run yet. Returns whether it ran.
    template<typename Body> bool resume(Body &&body)
    {
        std::scoped_lock lock(m_lock);
        if (m_resumed)
            return false;
        m_resumed = true;
        body();
        return true;
    }

    bool isResumed() const
    {
        std::scoped_lock lock(m_lock);
        return m_resumed;
    }

private:
    mutable std::mutex m_lock;
    bool m_resumed = false; // guarded by m_lock
};
