#pragma once

#include <atomic>
#include <functional>
#include <memory>

class SerialQueue;

// Hands one producer's samples to a consumer on a serial queue, with a bound on how many may be
// there at once, queued or running (a stalled consumer makes the producer drop, not pile up), and
// a close() after which no call runs. The queue must outlive the calls posted to it.
class QueueDelivery
{
public:
    QueueDelivery(SerialQueue &queue, int maxInFlight);
    ~QueueDelivery(); // closes
    QueueDelivery(const QueueDelivery &) = delete;
    QueueDelivery &operator=(const QueueDelivery &) = delete;

    // Queues `call`; false, and the call dropped, when closed or when `maxInFlight` calls are
    // queued or running. Safe from any thread.
    bool post(std::function<void()> call);
    // Posts a call of `handler` with `value`, which is moved along rather than copied: a frame
    // handed over this way is the handler's to keep.
    template<typename Handler, typename Value> bool hand(const Handler &handler, Value value)
    {
        return post([handler, value = std::move(value)]() mutable { handler(std::move(value)); });
    }

    // After this returns no call starts. With `waitForRunning`, none is running either, unless
    // close() was called from the queue's own thread (from inside a call, which then finishes).
    // Without it, close() never blocks: the way to stop from a thread that a running call might
    // itself be waiting for. Safe to call again (waiting then).
    void close(bool waitForRunning = true);

    int inFlight() const { return m_gate->inFlight.load(); }

private:
    struct Gate
    {
        std::atomic<bool> open {true};
        std::atomic<int> inFlight {0};
    };

    SerialQueue &m_queue;
    const int m_maxInFlight;
    // Shared with the queued calls, which may run after this object is gone.
    std::shared_ptr<Gate> m_gate;
};
