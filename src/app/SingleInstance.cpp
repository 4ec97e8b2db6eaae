#include "app/SingleInstance.h"

#include <QFileInfo>
#include <QLocalServer>
#include <QLocalSocket>

#include <unistd.h>

SingleInstance::SingleInstance(QString name, QObject *parent)
    : QObject(parent)
    , m_name(std::move(name))
{
}

SingleInstance::~SingleInstance() = default;

QString SingleInstance::defaultName()
{
    // The per-user runtime folder when there is one (a session of its own, as tests and
    // containers have, then gets its own instance); the user id in /tmp otherwise.
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!runtime.isEmpty() && QFileInfo(runtime).isDir())
        return runtime + QStringLiteral("/vantrel.socket");
    return QStringLiteral("vantrel-%1").arg(getuid());
}

bool SingleInstance::handOffToRunningInstance(const QStringList &arguments)
{
    QLocalSocket socket;
    socket.connectToServer(m_name);
    if (socket.waitForConnected(1000)) {
        socket.write(arguments.join(QLatin1Char('\n')).toUtf8() + '\0');
        socket.waitForBytesWritten(2000);
        // Wait for the first instance to read it, so a link is never lost to an early exit.
        socket.waitForDisconnected(2000);
        return true;
    }

    QLocalServer::removeServer(m_name);
    m_server = new QLocalServer(this);
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!m_server->listen(m_name))
        return false; // running without the hand-off beats not running at all
    connect(m_server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket *client = m_server->nextPendingConnection()) {
            auto buffer = std::make_shared<QByteArray>();
            connect(client, &QLocalSocket::readyRead, client, [this, client, buffer] {
                buffer->append(client->readAll());
                if (!buffer->endsWith('\0'))
                    return;
                buffer->chop(1);
                const QString text = QString::fromUtf8(*buffer);
                client->disconnectFromServer();
                emit argumentsReceived(text.isEmpty() ? QStringList()
                                                      : text.split(QLatin1Char('\n')));
            });
            connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
        }
    });
    return false;
}
