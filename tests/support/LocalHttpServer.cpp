#include "support/LocalHttpServer.h"

#include <QTcpSocket>

LocalHttpServer::LocalHttpServer()
{
    m_server.listen(QHostAddress::LocalHost);
    connect(&m_server, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket *socket = m_server.nextPendingConnection()) {
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { answer(socket); });
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        }
    });
}

QUrl LocalHttpServer::url() const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort()));
}

void LocalHttpServer::answer(QTcpSocket *socket)
{
    if (socket->property("answered").toBool() || !socket->peek(1 << 16).contains("\r\n\r\n"))
        return;
    socket->setProperty("answered", true);
    const QList<QByteArray> requestLine = socket->readLine().trimmed().split(' ');
    const QString path = requestLine.size() > 1 ? QString::fromLatin1(requestLine[1]) : QString();
    m_counts[path] += 1;
    const auto found = m_replies.constFind(path);
    const Reply reply = found != m_replies.cend() ? *found : Reply {404, "text/plain", "not here"};
    QByteArray out = "HTTP/1.1 " + QByteArray::number(reply.status) + " Status\r\n";
    out += "Content-Type: " + reply.contentType + "\r\n";
    out += "Content-Length: " + QByteArray::number(reply.body.size()) + "\r\n";
    out += "Connection: close\r\n\r\n" + reply.body;
    socket->write(out);
    socket->disconnectFromHost();
}
