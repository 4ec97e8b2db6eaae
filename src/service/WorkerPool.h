#pragma once

#include "service/Connection.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

// The threads that serve requests, fed from one queue of connections whose request has
// arrived. No client (Connection::client) is given more than its share of the threads at once:
// its further requests wait while other clients' go ahead, so one client never holds every
// thread.
class WorkerPool
{
public:
    // `serve` runs on a worker thread with the connection, and must hand it on (back to the
    // front door) before it returns.
    using Serve = std::function<void(std::unique_ptr<Connection>)>;

    WorkerPool(int workers, int workersPerClient, Serve serve);
    // Stops and joins the threads.
    ~WorkerPool();
    WorkerPool(const WorkerPool &) = delete;
    WorkerPool &operator=(const WorkerPool &) = delete;

    void push(std::unique_ptr<Connection> connection);
    // Requests being served finish; queued ones are dropped. Returns at once.
    void stop();

private:
    void work();
    // The first queued connection whose client is under its share; end() when none is.
    std::deque<std::unique_ptr<Connection>>::iterator nextLocked();

    const int m_workersPerClient;
    const Serve m_serve;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::unique_ptr<Connection>> m_queue; // guarded by m_mutex
    std::unordered_map<std::string, int> m_busy; // guarded by m_mutex: client → threads serving it
    bool m_stopping = false; // guarded by m_mutex
    std::vector<std::thread> m_threads;
};
