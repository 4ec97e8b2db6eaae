#pragma once

#include <QObject>

// Tells a running service call or wait to stop early: the network reply in flight is aborted
// and a pending wait ends at once. Whoever awaited checks isCancelled() and leaves without
// touching anything. Main thread only.
class Cancellation : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;

    bool isCancelled() const { return m_cancelled; }
    void cancel()
    {
        if (m_cancelled)
            return;
        m_cancelled = true;
        emit cancelled();
    }

signals:
    void cancelled();

private:
    bool m_cancelled = false;
};
