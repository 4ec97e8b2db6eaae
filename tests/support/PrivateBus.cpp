#include "support/PrivateBus.h"

#include <QDBusMessage>

#include <cstdlib>

namespace {

const QString notificationsPath = QStringLiteral("/org/freedesktop/Notifications");

class FileManager : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.FileManager1")

public:
    explicit FileManager(QStringList &shown, QObject *parent)
        : QObject(parent)
        , m_shown(shown)
    {
    }

public Q_SLOTS:
    void ShowItems(const QStringList &uris, const QString &) { m_shown << uris; }
    void ShowFolders(const QStringList &uris, const QString &) { m_shown << uris; }

private:
    QStringList &m_shown;
};

} // namespace

PrivateBus::PrivateBus()
{
    m_daemon.start(QStringLiteral("dbus-daemon"),
                   {QStringLiteral("--session"), QStringLiteral("--print-address"),
                    QStringLiteral("--nofork"), QStringLiteral("--nopidfile")});
    if (!m_daemon.waitForStarted(5000) || !m_daemon.waitForReadyRead(5000))
        return;
    m_address = QString::fromUtf8(m_daemon.readLine()).trimmed();
    setenv("DBUS_SESSION_BUS_ADDRESS", m_address.toUtf8().constData(), 1);
}

PrivateBus::~PrivateBus()
{
    m_daemon.terminate();
    if (!m_daemon.waitForFinished(3000))
        m_daemon.kill();
}

NotificationServer::NotificationServer(const QString &address)
    : m_bus(QDBusConnection::connectToBus(address, QStringLiteral("test-notification-server")))
{
    if (!m_bus.isConnected())
        return;
    m_fileManager = new FileManager(shownItems, this);
    m_ready = m_bus.registerObject(notificationsPath, this, QDBusConnection::ExportAllSlots) &&
        m_bus.registerService(QStringLiteral("org.freedesktop.Notifications")) &&
        m_bus.registerObject(QStringLiteral("/org/freedesktop/FileManager1"), m_fileManager,
                             QDBusConnection::ExportAllSlots) &&
        m_bus.registerService(QStringLiteral("org.freedesktop.FileManager1"));
}

NotificationServer::~NotificationServer()
{
    QDBusConnection::disconnectFromBus(QStringLiteral("test-notification-server"));
}

uint NotificationServer::Notify(const QString &appName, uint, const QString &,
                                const QString &summary, const QString &body,
                                const QStringList &actions, const QVariantMap &hints, int)
{
    received.append({m_nextId, appName, summary, body, actions, hints});
    return m_nextId++;
}

QStringList NotificationServer::GetCapabilities()
{
    return {QStringLiteral("actions"), QStringLiteral("body")};
}

void NotificationServer::CloseNotification(uint) { }

void NotificationServer::invokeAction(uint id, const QString &key)
{
    QDBusMessage signal = QDBusMessage::createSignal(
        notificationsPath, QStringLiteral("org.freedesktop.Notifications"),
        QStringLiteral("ActionInvoked"));
    signal << id << key;
    m_bus.send(signal);
}

#include "PrivateBus.moc"
