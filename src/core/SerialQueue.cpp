#include "core/SerialQueue.h"

#include <future>
#include <pthread.h>

SerialQueue::SerialQueue(std::string label, std::string threadName)
    : m_label(std::move(label))
{
    m_thread = std::thread([this, name = std::move(threadName)] {
        pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
        run();
    });
}

SerialQueue::~SerialQueue()
{
    {
        std::scoped_lock lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

void SerialQueue::async(Task task)
{
    {
        std::scoped_lock lock(m_mutex);
        m_tasks.push_back(std::move(task));
    }
    m_wake.notify_one();
}

void SerialQueue::Delayed::cancel()
{
    if (auto flag = m_cancelled.lock())
        flag->store(true);
}

SerialQueue::Delayed SerialQueue::asyncAfter(std::chrono::milliseconds delay, Task task)
{
    auto cancelled = std::make_shared<std::atomic<bool>>(false);
    Delayed handle;
    handle.m_cancelled = cancelled;
    Task guarded = [cancelled, task = std::move(task)] {
        if (!cancelled->load())
            task();
    };
    {
        std::scoped_lock lock(m_mutex);
        m_delayed.emplace(Clock::now() + delay, std::move(guarded));
    }
    m_wake.notify_one();
    return handle;
}

void SerialQueue::sync(const Task &task)
{
    std::promise<void> done;
    async([&] {
        task();
        done.set_value();
    });
    done.get_future().wait();
}

void SerialQueue::run()
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        while (!m_delayed.empty() && m_delayed.begin()->first <= Clock::now()) {
            m_tasks.push_back(std::move(m_delayed.begin()->second));
            m_delayed.erase(m_delayed.begin());
        }
        if (!m_tasks.empty()) {
            Task task = std::move(m_tasks.front());
            m_tasks.pop_front();
            lock.unlock();
            task();
            lock.lock();
            continue;
        }
        if (m_stopping)
            return;
        if (m_delayed.empty())
            m_wake.wait(lock);
        else
            m_wake.wait_until(lock, m_delayed.begin()->first);
    }
}
