#include "core/DesktopPortal.h"

#include "core/PortalResponse.h"

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusReply>
#include <QEventLoop>
#include <QFileInfo>
#include <QTimer>

#include <atomic>
#include <unistd.h>

namespace DesktopPortal {

namespace {

std::atomic<int> tokenCounter {0};

} // namespace

QString newToken()
{
    return QStringLiteral("vantrel%1_%2").arg(::getpid()).arg(++tokenCounter);
}

QDBusConnection connect(const QString &purpose)
{
    return QDBusConnection::connectToBus(QDBusConnection::SessionBus,
                                         QStringLiteral("vantrel-%1-%2").arg(purpose, newToken()));
}

QString requestPath(const QDBusConnection &bus, const QString &token)
{
    // The sender part is the unique name without its colon, its dots made underscores.
    QString sender = bus.baseService();
    sender.remove(0, 1).replace(QLatin1Char('.'), QLatin1Char('_'));
    return QStringLiteral("/org/freedesktop/portal/desktop/request/%1/%2").arg(sender, token);
}

std::optional<uint> interfaceVersion(const QDBusConnection &bus, const QString &interface,
                                     std::chrono::milliseconds timeout)
{
    if (!bus.isConnected())
        return std::nullopt;
    QDBusMessage get = QDBusMessage::createMethodCall(
        service, objectPath, QStringLiteral("org.freedesktop.DBus.Properties"),
        QStringLiteral("Get"));
    get << interface << QStringLiteral("version");
    const QDBusMessage reply = bus.call(get, QDBus::Block, int(timeout.count()));
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return std::nullopt;
    const QVariant value = reply.arguments().constFirst().value<QDBusVariant>().variant();
    bool ok = false;
    const uint version = value.toUInt(&ok);
    // The front end answers for every interface it knows, with 0 when no backend offers it.
    if (!ok || version == 0)
        return std::nullopt;
    return version;
}

std::optional<uint> interfaceVersion(const QString &interface)
{
    // No session bus to be found means no portal; Qt D-Bus is not even started then.
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS") &&
        (runtime.isEmpty() || !QFileInfo::exists(runtime + QStringLiteral("/bus"))))
        return std::nullopt;
    const QDBusConnection bus = connect(QStringLiteral("probe"));
    const std::optional<uint> version = interfaceVersion(bus, interface);
    QDBusConnection::disconnectFromBus(bus.name());
    return version;
}

Answer request(const QDBusConnection &bus, const QString &interface, const QString &method,
               QList<QVariant> arguments, QVariantMap options, std::chrono::milliseconds timeout)
{
    if (!bus.isConnected())
        throw Failure("no session bus: " + bus.lastError().message().toStdString());
    const QString token = newToken();
    options.insert(QStringLiteral("handle_token"), token);
    arguments.append(options);

    // Listening before the call: the answer may come before the call returns.
    PortalResponse waiter;
    QString path = requestPath(bus, token);
    const auto listen = [&](const QString &at) {
        return QDBusConnection(bus).connect(
            service, at, QStringLiteral("org.freedesktop.portal.Request"),
            QStringLiteral("Response"), &waiter, SLOT(respond(uint, QVariantMap)));
    };
    if (!listen(path))
        throw Failure("cannot listen to the portal's answers");

    QDBusMessage call = QDBusMessage::createMethodCall(service, objectPath, interface, method);
    call.setArguments(arguments);
    const QDBusMessage reply = QDBusConnection(bus).call(call, QDBus::Block, 10000);
    if (reply.type() != QDBusMessage::ReplyMessage) {
        QDBusConnection(bus).disconnect(
            service, path, QStringLiteral("org.freedesktop.portal.Request"),
            QStringLiteral("Response"), &waiter, SLOT(respond(uint, QVariantMap)));
        throw Failure((method + QStringLiteral(" failed: ") + reply.errorMessage()).toStdString());
    }
    // Older portals chose the path themselves; follow theirs.
    if (!reply.arguments().isEmpty()) {
        const QString given = reply.arguments().constFirst().value<QDBusObjectPath>().path();
        if (!given.isEmpty() && given != path) {
            listen(given);
            path = given;
        }
    }
    if (!waiter.answered()) {
        QEventLoop loop;
        QObject::connect(&waiter, &PortalResponse::answeredNow, &loop, &QEventLoop::quit);
        QTimer::singleShot(timeout, &loop, &QEventLoop::quit);
        loop.exec();
    }
    QDBusConnection(bus).disconnect(service, path, QStringLiteral("org.freedesktop.portal.Request"),
                                    QStringLiteral("Response"), &waiter,
                                    SLOT(respond(uint, QVariantMap)));
    if (!waiter.answered())
        throw Failure((method +
                       QStringLiteral(": no answer from the desktop portal within %1 s")
                           .arg(timeout.count() / 1000.0))
                          .toStdString());
    return {Response(std::min(waiter.code(), 2u)), waiter.results()};
}

} // namespace DesktopPortal
