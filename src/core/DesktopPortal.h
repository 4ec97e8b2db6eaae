#pragma once

#include <QDBusConnection>
#include <QList>
#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <chrono>
#include <optional>
#include <stdexcept>

// The freedesktop desktop portal (org.freedesktop.portal.Desktop) as this program talks to it:
// a bus connection of its own, the interfaces the portal offers, and its Request/Response
// pattern, where a method answers with the path of a request object and the real answer comes
// later as that object's Response signal.
namespace DesktopPortal {

inline const QString service = QStringLiteral("org.freedesktop.portal.Desktop");
inline const QString objectPath = QStringLiteral("/org/freedesktop/portal/desktop");

// The portal's answer codes: 0 success, 1 the user cancelled, 2 anything else (refused, failed).
enum class Response : uint { success = 0, cancelled = 1, other = 2 };

// Thrown when the portal cannot be reached, a call fails, or no answer comes in time; the text
// says which, for the log.
struct Failure : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

// A new private connection to the session bus. Each user of the portal has its own, so that a
// session it opened ends with it, and a bus that restarted is met with a fresh connection.
// Disconnect it with QDBusConnection::disconnectFromBus(connection.name()).
QDBusConnection connect(const QString &purpose);

// The version of `interface` ("org.freedesktop.portal.ScreenCast"), none when the portal or the
// interface is missing. Waits at most `timeout`.
std::optional<uint> interfaceVersion(const QDBusConnection &bus, const QString &interface,
                                     std::chrono::milliseconds timeout = std::chrono::seconds(2));

// The same for the session bus of this process, through a short connection of its own.
std::optional<uint> interfaceVersion(const QString &interface);

// One request to the portal: `method` of `interface` with `arguments`, whose last argument, the
// options, gets a fresh "handle_token" added here. Blocks the calling thread until the Response
// arrives or `timeout` passes (a local event loop runs meanwhile, so the calling thread needs
// none of its own). Throws Failure when the call fails or no answer comes.
struct Answer
{
    Response response = Response::other;
    QVariantMap results;
};
Answer request(const QDBusConnection &bus, const QString &interface, const QString &method,
               QList<QVariant> arguments, QVariantMap options, std::chrono::milliseconds timeout);

// A token for "handle_token" and "session_handle_token": unique in this process.
QString newToken();

// The object path of the request that a call with `token` creates, for `bus`'s unique name.
QString requestPath(const QDBusConnection &bus, const QString &token);

} // namespace DesktopPortal
