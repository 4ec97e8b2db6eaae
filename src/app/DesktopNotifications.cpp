#include "app/DesktopNotifications.h"

#include "core/Log.h"

#include <QDBusConnection>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QVariantMap>

namespace {

const QString service = QStringLiteral("org.freedesktop.Notifications");
const QString path = QStringLiteral("/org/freedesktop/Notifications");
const QString interface = QStringLiteral("org.freedesktop.Notifications");

} // namespace

DesktopNotifications::DesktopNotifications(QObject *parent)
    : QObject(parent)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return;
    bus.connect(service, path, interface, QStringLiteral("ActionInvoked"), this,
                SLOT(actionInvoked(uint, QString)));
    bus.connect(service, path, interface, QStringLiteral("NotificationClosed"), this,
                SLOT(closed(uint, uint)));
}

void DesktopNotifications::notify(const QString &summary, const QString &body,
                                  QList<Action> actions, bool critical)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return;
    QStringList actionList;
    for (const Action &action : actions)
        actionList << action.key << action.label;
    QVariantMap hints;
    hints.insert(QStringLiteral("desktop-entry"), QStringLiteral("vantrel"));
    hints.insert(QStringLiteral("urgency"), QVariant::fromValue(uchar(critical ? 2 : 1)));
    QDBusMessage call =
        QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("Notify"));
    call << QStringLiteral("Vantrel") << uint(0) << QStringLiteral("vantrel") << summary << body
         << actionList << hints << int(-1);
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call), this);
    connect(
        watcher, &QDBusPendingCallWatcher::finished, this,
        [this, actions = std::move(actions)](QDBusPendingCallWatcher *finished) {
            finished->deleteLater();
            const QDBusPendingReply<uint> reply = *finished;
            if (reply.isError()) {
                Log::reportOnce(
                    "notifications",
                    QStringLiteral("no desktop notifications: %1").arg(reply.error().message()));
                return;
            }
            if (!actions.isEmpty())
                m_actions.insert(reply.value(), actions);
        });
}

void DesktopNotifications::actionInvoked(uint id, const QString &key)
{
    for (const Action &action : m_actions.value(id)) {
        if (action.key == key && action.run)
            action.run();
    }
}

void DesktopNotifications::closed(uint id, uint)
{
    m_actions.remove(id);
}
