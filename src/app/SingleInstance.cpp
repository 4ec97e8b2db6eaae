#include "app/SingleInstance.h"

#include "core/Log.h"
#include "core/PrivateFolder.h"

#include <QLocalServer>
#include <QLocalSocket>

namespace {

// A later launch hands over a few links; anything longer is not one of ours.
constexpr qsizetype longestHandOff = 64 * 1024;

} // namespace

SingleInstance::SingleInstance(QString name, QObject *parent)
    : QObject(parent)
    , m_name(std::move(name))
{
}

SingleInstance::~SingleInstance() = default;

QString SingleInstance::defaultName()
{
    // Whoever listens here first receives the links, sign-in codes included, so the socket only
    // ever lives in a folder no one else can enter: the session's runtime folder (a session of
    // its own, as tests and containers have, then gets its own instance), or the cache folder
    // when there is no runtime folder of this user's. Never the shared temporary folder.
    QString folder;
    if (const QString runtime = PrivateFolder::runtimeBase(); !runtime.isEmpty())
        folder = PrivateFolder::ensure(runtime + QStringLiteral("/vantrel"));
    if (folder.isEmpty())
        folder = PrivateFolder::ensure(PrivateFolder::cacheBase() + QStringLiteral("/Vantrel/run"));
    if (folder.isEmpty())
        return {};
    return folder + QStringLiteral("/instance.socket");
}

bool SingleInstance::handOffToRunningInstance(const QStringList &arguments)
{
    if (m_name.isEmpty()) {
        Log::system(QStringLiteral("no private folder for the single-instance socket: running "
                                   "without handing links to a running Vantrel"));
        return false;
    }
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
                buffer->append(client->read(longestHandOff + 1 - buffer->size()));
                if (buffer->size() > longestHandOff) {
                    client->abort();
                    return;
                }
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
