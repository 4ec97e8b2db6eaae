#include "input/XcbEventReader.h"

#include "xcb/XcbHandles.h"

#include <QAbstractEventDispatcher>
#include <QSocketNotifier>

XcbEventReader::XcbEventReader(xcb_connection_t *connection, Handler handler,
                               std::function<void()> onLost)
    : m_connection(connection)
    , m_handler(std::move(handler))
    , m_onLost(std::move(onLost))
{
    m_notifier =
        new QSocketNotifier(xcb_get_file_descriptor(connection), QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &XcbEventReader::readSocket);
    if (auto *dispatcher = QAbstractEventDispatcher::instance(thread()))
        connect(dispatcher, &QAbstractEventDispatcher::aboutToBlock, this,
                &XcbEventReader::drainQueued);
}

XcbEventReader::~XcbEventReader() = default;

void XcbEventReader::readSocket()
{
    while (!m_lost) {
        Xcb::Event event(xcb_poll_for_event(m_connection));
        if (!event)
            break;
        m_handler(*event);
    }
    checkConnection();
}

void XcbEventReader::drainQueued()
{
    while (!m_lost) {
        Xcb::Event event(xcb_poll_for_queued_event(m_connection));
        if (!event)
            break;
        m_handler(*event);
    }
    checkConnection();
}

void XcbEventReader::checkConnection()
{
    if (m_lost || !xcb_connection_has_error(m_connection))
        return;
    m_lost = true;
    m_notifier->setEnabled(false);
    if (m_onLost)
        m_onLost();
}
