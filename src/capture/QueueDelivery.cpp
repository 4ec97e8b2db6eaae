#include "capture/QueueDelivery.h"

#include "core/SerialQueue.h"

QueueDelivery::QueueDelivery(SerialQueue &queue, int maxInFlight)
    : m_queue(queue)
    , m_maxInFlight(maxInFlight)
    , m_gate(std::make_shared<Gate>())
{
}

QueueDelivery::~QueueDelivery()
{
    close();
}

bool QueueDelivery::post(std::function<void()> call)
{
    if (!m_gate->open.load())
        return false;
    if (m_gate->inFlight.fetch_add(1) >= m_maxInFlight) {
        m_gate->inFlight.fetch_sub(1);
        return false;
    }
    m_queue.async([gate = m_gate, call = std::move(call)] {
        if (gate->open.load())
            call();
        gate->inFlight.fetch_sub(1);
    });
    return true;
}

void QueueDelivery::close(bool waitForRunning)
{
    m_gate->open.store(false);
    // A call that saw the gate open before it closed may still be running: wait for it by
    // queueing an empty task behind it. Calls queued later find the gate closed.
    if (waitForRunning && !m_queue.isCurrent())
        m_queue.sync([] {});
}
