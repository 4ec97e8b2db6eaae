#include "core/SharedPool.h"

#include <QThreadPool>

#include <deque>
#include <mutex>

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_ignore_thread_begin();
extern "C" void __tsan_ignore_thread_end();
#endif

namespace SharedPool {

namespace {

// Every runnable handed to the pool takes exactly one entry, so the work runs in the order it
// was queued as soon as a pool thread is free. Never destroyed: the pool's threads outlive the
// program's static objects.
struct Queue {
    std::mutex lock;
    std::deque<std::function<void()>> pending; // guarded by lock
};

Queue &queue()
{
    static Queue *const queue = new Queue;
    return *queue;
}

void runNext()
{
    std::function<void()> work;
    {
        std::scoped_lock guard(queue().lock);
        work = std::move(queue().pending.front());
        queue().pending.pop_front();
    }
    work();
}

} // namespace

RaceChecksPaused::RaceChecksPaused()
{
#if defined(__SANITIZE_THREAD__)
    __tsan_ignore_thread_begin();
#endif
}

RaceChecksPaused::~RaceChecksPaused()
{
#if defined(__SANITIZE_THREAD__)
    __tsan_ignore_thread_end();
#endif
}

void run(std::function<void()> work)
{
    {
        std::scoped_lock guard(queue().lock);
        queue().pending.push_back(std::move(work));
    }
    // Nothing is captured: the work itself travels through `pending`.
    QThreadPool::globalInstance()->start(&runNext);
}

} // namespace SharedPool
