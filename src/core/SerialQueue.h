#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

// One thread running tasks one at a time, in the order they were queued: the pipeline's stand-in
// for a labelled serial dispatch queue. Delayed tasks run on the same thread once their time has
// come, so a time limit never runs at the same moment as the work it limits.
//
// The destructor runs every task already queued (not the delayed ones still waiting), then joins.
class SerialQueue
{
public:
    using Clock = std::chrono::steady_clock;
    using Task = std::function<void()>;

    // `label` is kept as the queue's name; `threadName` (at most 15 characters) names the thread.
    SerialQueue(std::string label, std::string threadName);
    ~SerialQueue();
    SerialQueue(const SerialQueue &) = delete;
    SerialQueue &operator=(const SerialQueue &) = delete;

    const std::string &label() const { return m_label; }

    void async(Task task);

    // A delayed task that can be cancelled until it starts: the flag is checked on the queue's
    // thread just before the task would run. Cancelling after it ran, or twice, is harmless.
    class Delayed
    {
    public:
        void cancel();

    private:
        friend class SerialQueue;
        std::weak_ptr<std::atomic<bool>> m_cancelled;
    };
    Delayed asyncAfter(std::chrono::milliseconds delay, Task task);

    // Runs `task` on the queue and waits for it. Must not be called from the queue's own thread.
    void sync(const Task &task);

    bool isCurrent() const { return std::this_thread::get_id() == m_thread.get_id(); }

private:
    void run();

    const std::string m_label;
    // Guards everything below except the thread handle.
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<Task> m_tasks;
    std::multimap<Clock::time_point, Task> m_delayed;
    bool m_stopping = false;
    std::thread m_thread;
};
