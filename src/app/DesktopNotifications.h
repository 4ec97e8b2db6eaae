#pragma once

#include <QHash>
#include <QObject>
#include <QString>

#include <functional>

// Desktop notifications through the freedesktop notification service on the session bus
// (org.freedesktop.Notifications). Sending never blocks: the service's answer arrives later,
// and without a service (no desktop, no bus) a notification is simply not shown.
class DesktopNotifications : public QObject
{
    Q_OBJECT

public:
    struct Action
    {
        QString key; // what the service reports back
        QString label; // what the user reads on the button
        std::function<void()> run;
    };

    explicit DesktopNotifications(QObject *parent = nullptr);

    // `critical` for failures the user should not miss; the rest use the normal urgency.
    void notify(const QString &summary, const QString &body, QList<Action> actions = {},
                bool critical = false);

private Q_SLOTS:
    // The service's signals, for every program's notifications: ids not ours are ignored.
    void actionInvoked(uint id, const QString &key);
    void closed(uint id, uint reason);

private:
    // The actions of each notification still on screen, by the id the service gave it.
    QHash<uint, QList<Action>> m_actions;
};
