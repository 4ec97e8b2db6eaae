#pragma once

#include <QObject>

#include <xcb/xcb.h>

#include <functional>

class QSocketNotifier;

// Delivers the events of one XCB connection on the thread that owns this object (the main thread
// here), without polling: a socket notifier wakes it when the server writes, and the queue that
// XCB filled while waiting for a reply is drained before the event loop goes to sleep.
// `onLost` runs once when the connection breaks (the server went away); no event follows.
class XcbEventReader : public QObject
{
    Q_OBJECT

public:
    using Handler = std::function<void(const xcb_generic_event_t &event)>;

    XcbEventReader(xcb_connection_t *connection, Handler handler, std::function<void()> onLost);
    ~XcbEventReader() override;

    // Handles every event already read from the socket; call after a round trip whose reply wait
    // may have queued events.
    void drainQueued();
    bool isLost() const { return m_lost; }

private:
    void readSocket();
    void checkConnection();

    xcb_connection_t *const m_connection;
    const Handler m_handler;
    const std::function<void()> m_onLost;
    QSocketNotifier *m_notifier = nullptr;
    bool m_lost = false;
};
