#include "core/SharedPool.h"

#include <QThreadPool>

#include <deque>
#include <mutex>

namespace SharedPool {

namespace {

// Guards `pending`. Every runnable handed to the pool takes exactly one entry, so the work runs
// in the order it was queued as soon as a pool thread is free.
std::mutex lock;
std::deque<std::function<void()>> pending;

void runNext()
{
    std::function<void()> work;
    {
        std::scoped_lock guard(lock);
        work = std::move(pending.front());
        pending.pop_front();
    }
    work();
}

} // namespace

void handOver()
{
    std::scoped_lock guard(lock);
}

void run(std::function<void()> work)
{
    {
        std::scoped_lock guard(lock);
        pending.push_back(std::move(work));
    }
    // Nothing is captured: the work itself travels through `pending`.
    QThreadPool::globalInstance()->start(&runNext);
}

} // namespace SharedPool
