#pragma once

#include <QException>
#include <QFuture>
#include <QPromise>

#include <exception>
#include <functional>
#include <memory>
#include <type_traits>

// The process's shared task pool (Qt's global thread pool), for the asynchronous operations
// that must not run on the main thread.
//
// Work is handed over through a queue of our own under a std::mutex, and answered through a
// QPromise: ThreadSanitizer cannot see the thread pool's own locks (Qt is not built with it),
// but it does see this one, so the tests that run under it check our code rather than Qt's.
//
// A task may block on queues and threads of its own (a writer finishing, a stream stopping), but
// must never wait for another pool task: with as few threads as cores, that could wait forever.
namespace SharedPool {

void run(std::function<void()> work);

// Pauses ThreadSanitizer's checks of this thread's reads and writes while it lives (nothing
// without it). Locks and other hand-overs are still followed.
class RaceChecksPaused {
public:
    RaceChecksPaused();
    ~RaceChecksPaused();
    RaceChecksPaused(const RaceChecksPaused &) = delete;
    RaceChecksPaused &operator=(const RaceChecksPaused &) = delete;
};

// Finishes an answered promise and lets go of it at once.
//
// The caller may have read the answer and let go of it already, so this thread may be the one
// that frees it. An error's last free is decided by libstdc++'s count of references to a thrown
// exception, made with atomics that ThreadSanitizer cannot see: the free would look like a race
// with the caller's read (and ThreadSanitizer has been seen to crash while reporting it). The
// promise is therefore let go of with this thread's race checks paused.
template<typename T> void finishAndRelease(QPromise<T> &promise)
{
    promise.finish();
    const RaceChecksPaused paused;
    const QPromise<T> done = std::move(promise);
}

// Waits for `future` and drops its outcome, errors included (for owners going away).
template<typename T> void settle(QFuture<T> future)
{
    try {
        future.waitForFinished();
    } catch (...) {
    }
}

// Runs `work` on the pool and answers with its result, or with what it threw.
template<typename T, typename Work> QFuture<T> task(Work work)
{
    auto promise = std::make_shared<QPromise<T>>();
    promise->start();
    QFuture<T> future = promise->future();
    run([promise, work = std::move(work)]() mutable {
        try {
            if constexpr (std::is_void_v<T>)
                work();
            else
                promise->addResult(work());
        } catch (...) {
            promise->setException(std::current_exception());
        }
        finishAndRelease(*promise);
    });
    return future;
}

} // namespace SharedPool
