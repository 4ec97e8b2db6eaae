#include "capture/wayland/ScreenCastPortal.h"

#include "core/DesktopPortal.h"
#include "core/Log.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusUnixFileDescriptor>

#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

const QString screenCast = QStringLiteral("org.freedesktop.portal.ScreenCast");
constexpr auto stepTime = 10s;

// Source types and cursor modes are bit masks in the interface.
constexpr uint monitorSource = 1;
constexpr uint cursorHidden = 1;
constexpr uint cursorEmbedded = 2;
// Keep the permission until the user revokes it, not only for this run of the program.
constexpr uint persistUntilRevoked = 2;

uint uintProperty(const QDBusConnection &bus, const QString &name)
{
    QDBusMessage get = QDBusMessage::createMethodCall(
        DesktopPortal::service, DesktopPortal::objectPath,
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << screenCast << name;
    const QDBusMessage reply = QDBusConnection(bus).call(get, QDBus::Block, 5000);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return 0;
    return reply.arguments().constFirst().value<QDBusVariant>().variant().toUInt();
}

void check(const DesktopPortal::Answer &answer, const char *step)
{
    using DesktopPortal::Response;
    if (answer.response == Response::success)
        return;
    const bool cancelled = answer.response == Response::cancelled;
    throw ScreenCastPortal::Refused(cancelled,
                                    std::string(step) +
                                        (cancelled ? ": the user cancelled screen sharing"
                                                   : ": the desktop did not share the screen"));
}

// The first stream of a Start answer: a(ua{sv}), whose properties may hold "size" (ii).
ScreenCastPortal::Stream firstStream(const QVariantMap &results)
{
    ScreenCastPortal::Stream stream;
    const QVariant streams = results.value(QStringLiteral("streams"));
    if (!streams.canConvert<QDBusArgument>())
        throw DesktopPortal::Failure("Start gave no stream to record");
    const QDBusArgument list = streams.value<QDBusArgument>();
    bool found = false;
    list.beginArray();
    while (!list.atEnd()) {
        uint node = 0;
        QVariantMap properties;
        list.beginStructure();
        list >> node >> properties;
        list.endStructure();
        if (found)
            continue;
        found = true;
        stream.node = node;
        const QVariant size = properties.value(QStringLiteral("size"));
        if (size.canConvert<QDBusArgument>()) {
            const QDBusArgument pair = size.value<QDBusArgument>();
            pair.beginStructure();
            pair >> stream.width >> stream.height;
            pair.endStructure();
        }
    }
    list.endArray();
    if (!found)
        throw DesktopPortal::Failure("Start gave no stream to record");
    stream.restoreToken = results.value(QStringLiteral("restore_token")).toString();
    return stream;
}

} // namespace

ScreenCastPortal::ScreenCastPortal()
    : m_bus(DesktopPortal::connect(QStringLiteral("screencast")))
{
}

ScreenCastPortal::~ScreenCastPortal()
{
    close();
    QDBusConnection::disconnectFromBus(m_bus.name());
}

ScreenCastPortal::Stream ScreenCastPortal::open(const QString &restoreToken,
                                                std::chrono::milliseconds consentTime)
{
    const uint version = uintProperty(m_bus, QStringLiteral("version"));
    if (version == 0)
        throw DesktopPortal::Failure("the desktop portal offers no ScreenCast interface");
    const uint cursorModes = uintProperty(m_bus, QStringLiteral("AvailableCursorModes"));

    DesktopPortal::Answer answer = DesktopPortal::request(
        m_bus, screenCast, QStringLiteral("CreateSession"), {},
        {{QStringLiteral("session_handle_token"), DesktopPortal::newToken()}}, stepTime);
    check(answer, "CreateSession");
    const QString session = answer.results.value(QStringLiteral("session_handle")).toString();
    if (session.isEmpty())
        throw DesktopPortal::Failure("CreateSession gave no session");
    {
        std::scoped_lock lock(m_lock);
        m_session = session;
    }

    // The cursor is part of the picture, as on X11; a portal that cannot draw it in leaves it out.
    const bool embedCursor = cursorModes & cursorEmbedded;
    QVariantMap select {
        {QStringLiteral("types"), monitorSource},
        {QStringLiteral("multiple"), false},
        {QStringLiteral("cursor_mode"), embedCursor ? cursorEmbedded : cursorHidden}};
    // Restoring and persisting came with version 4 of the interface.
    if (version >= 4) {
        select.insert(QStringLiteral("persist_mode"), persistUntilRevoked);
        if (!restoreToken.isEmpty())
            select.insert(QStringLiteral("restore_token"), restoreToken);
    }
    const QDBusObjectPath sessionPath(session);
    answer = DesktopPortal::request(m_bus, screenCast, QStringLiteral("SelectSources"),
                                    {QVariant::fromValue(sessionPath)}, select, stepTime);
    check(answer, "SelectSources");

    // Here the desktop may show its chooser: the user gets `consentTime` to answer.
    answer = DesktopPortal::request(m_bus, screenCast, QStringLiteral("Start"),
                                    {QVariant::fromValue(sessionPath), QString()}, {}, consentTime);
    check(answer, "Start");
    Stream stream = firstStream(answer.results);
    stream.cursorEmbedded = embedCursor;
    Log::system(QStringLiteral("screencast portal v%1: node %2, %3x%4, cursor %5, restore token %6")
                    .arg(version)
                    .arg(stream.node)
                    .arg(stream.width)
                    .arg(stream.height)
                    .arg(embedCursor ? QStringLiteral("embedded") : QStringLiteral("hidden"))
                    .arg(restoreToken.isEmpty() ? QStringLiteral("none offered")
                                                : QStringLiteral("offered")));
    return stream;
}

int ScreenCastPortal::pipeWireRemote()
{
    QString session;
    {
        std::scoped_lock lock(m_lock);
        session = m_session;
    }
    if (session.isEmpty())
        throw DesktopPortal::Failure("no screen cast session is open");
    QDBusMessage call =
        QDBusMessage::createMethodCall(DesktopPortal::service, DesktopPortal::objectPath,
                                       screenCast, QStringLiteral("OpenPipeWireRemote"));
    call << QVariant::fromValue(QDBusObjectPath(session)) << QVariantMap();
    const QDBusMessage reply = m_bus.call(call, QDBus::Block, 10000);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        throw DesktopPortal::Failure("OpenPipeWireRemote failed: " +
                                     reply.errorMessage().toStdString());
    const auto descriptor = reply.arguments().constFirst().value<QDBusUnixFileDescriptor>();
    // The message's descriptor closes with it; PipeWire gets a copy of its own.
    const int fd =
        descriptor.isValid() ? ::fcntl(descriptor.fileDescriptor(), F_DUPFD_CLOEXEC, 3) : -1;
    if (fd < 0)
        throw DesktopPortal::Failure("OpenPipeWireRemote gave no descriptor");
    return fd;
}

void ScreenCastPortal::close()
{
    QString session;
    {
        std::scoped_lock lock(m_lock);
        session.swap(m_session);
    }
    if (session.isEmpty())
        return;
    // Fire and forget: a portal that went away has closed the session already.
    const QDBusMessage call = QDBusMessage::createMethodCall(
        DesktopPortal::service, session, QStringLiteral("org.freedesktop.portal.Session"),
        QStringLiteral("Close"));
    m_bus.send(call);
}
