#include "service/WorkerPool.h"

#include <csignal>
#include <pthread.h>

WorkerPool::WorkerPool(int workers, int workersPerClient, Serve serve)
    : m_workersPerClient(std::max(1, workersPerClient))
    , m_serve(std::move(serve))
{
    // Signals are for the thread that waits on them, never for a worker.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    for (int i = 0; i < std::max(1, workers); ++i)
        m_threads.emplace_back([this] { work(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

WorkerPool::~WorkerPool()
{
    stop();
    for (std::thread &thread : m_threads)
        thread.join();
}

void WorkerPool::push(std::unique_ptr<Connection> connection)
{
    {
        std::scoped_lock lock(m_mutex);
        if (m_stopping)
            return;
        m_queue.push_back(std::move(connection));
    }
    m_changed.notify_one();
}

void WorkerPool::stop()
{
    std::deque<std::unique_ptr<Connection>> dropped;
    {
        std::scoped_lock lock(m_mutex);
        m_stopping = true;
        dropped.swap(m_queue);
    }
    m_changed.notify_all();
}

std::deque<std::unique_ptr<Connection>>::iterator WorkerPool::nextLocked()
{
    return std::find_if(m_queue.begin(), m_queue.end(), [&](const auto &connection) {
        const auto busy = m_busy.find(connection->client);
        return busy == m_busy.end() || busy->second < m_workersPerClient;
    });
}

void WorkerPool::work()
{
    for (;;) {
        std::unique_ptr<Connection> connection;
        std::string client;
        {
            std::unique_lock lock(m_mutex);
            auto next = m_queue.end();
            m_changed.wait(lock, [&] {
                next = nextLocked();
                return m_stopping || next != m_queue.end();
            });
            if (m_stopping)
                return;
            connection = std::move(*next);
            m_queue.erase(next);
            client = connection->client;
            ++m_busy[client];
        }
        m_serve(std::move(connection));
        {
            std::scoped_lock lock(m_mutex);
            if (--m_busy[client] <= 0)
                m_busy.erase(client);
        }
        // A client back under its share may have requests waiting that one thread could take.
        m_changed.notify_all();
    }
}
