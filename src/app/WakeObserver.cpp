#include "app/WakeObserver.h"

#include <QDBusConnection>

WakeObserver::WakeObserver(QObject *parent)
    : QObject(parent)
{
    // No sender name: a test bus may have the manager's name owned by any connection.
    m_listening = QDBusConnection::systemBus().connect(
        QString(), QStringLiteral("/org/freedesktop/login1"),
        QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("PrepareForSleep"), this,
        SLOT(onPrepareForSleep(bool)));
}

void WakeObserver::onPrepareForSleep(bool sleeping)
{
    if (!sleeping)
        emit didWake();
}
