#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QProcess>
#include <QStringList>
#include <QVariantMap>

// A session bus of the test's own (dbus-daemon), made the process's session bus. Start it
// before anything in the process uses the session bus.
class PrivateBus
{
public:
    PrivateBus();
    ~PrivateBus();

    bool isRunning() const { return !m_address.isEmpty(); }
    const QString &address() const { return m_address; }

private:
    QProcess m_daemon;
    QString m_address;
};

// A small notification server and file manager on a bus, as a desktop has: it records every
// notification and every "show this file" request, and can press a notification's button.
class NotificationServer : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    struct Notification
    {
        uint id = 0;
        QString appName;
        QString summary;
        QString body;
        QStringList actions; // key, label, key, label…
        QVariantMap hints;
    };

    // Owns org.freedesktop.Notifications and org.freedesktop.FileManager1 on `address`.
    explicit NotificationServer(const QString &address);
    ~NotificationServer() override;

    bool isReady() const { return m_ready; }
    QList<Notification> received;
    QStringList shownItems;

    // What the user's click on a notification's button sends.
    void invokeAction(uint id, const QString &key);

public Q_SLOTS:
    uint Notify(const QString &appName, uint replacesId, const QString &appIcon,
                const QString &summary, const QString &body, const QStringList &actions,
                const QVariantMap &hints, int expireTimeout);
    QStringList GetCapabilities();
    void CloseNotification(uint id);

private:
    QDBusConnection m_bus;
    bool m_ready = false;
    uint m_nextId = 1;
    QObject *m_fileManager = nullptr;
};
