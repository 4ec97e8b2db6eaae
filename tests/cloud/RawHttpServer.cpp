#include "RawHttpServer.h"

#include <QTcpSocket>

RawHttpServer::RawHttpServer()
{
    m_server.listen(QHostAddress::LocalHost);
    connect(&m_server, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket *socket = m_server.nextPendingConnection()) {
            socket->setParent(this);
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { read(socket); });
            connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
                m_pending.remove(socket);
                socket->deleteLater();
            });
        }
    });
}

QString RawHttpServer::url() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort());
}

RawHttpServer::Reply RawHttpServer::nextReply(const QByteArray &path)
{
    const QList<Reply> replies = m_replies.value(path);
    const int index = m_answered[path]++;
    return replies.isEmpty() ? Reply {404, {}}
                             : replies.value(std::min(index, int(replies.size()) - 1));
}

void RawHttpServer::send(QTcpSocket *socket, const Reply &reply)
{
    if (!reply.raw.isEmpty())
        socket->write(reply.raw);
    else
        socket->write("HTTP/1.1 " + QByteArray::number(reply.status) +
                      " Answer\r\nContent-Type: application/json\r\nContent-Length: " +
                      QByteArray::number(reply.body.size()) + "\r\nConnection: close\r\n\r\n" +
                      reply.body);
}

void RawHttpServer::read(QTcpSocket *socket)
{
    Pending &pending = m_pending[socket];
    if (pending.answeredRequest >= 0) {
        m_requests[pending.answeredRequest].body += socket->readAll();
        return;
    }
    pending.data += socket->readAll();
    QByteArray &data = pending.data;
    const qsizetype headEnd = data.indexOf("\r\n\r\n");
    if (headEnd < 0)
        return;
    Request request;
    const QList<QByteArray> lines = data.left(headEnd).split('\n');
    const QList<QByteArray> first = lines.value(0).trimmed().split(' ');
    request.method = first.value(0);
    request.path = first.value(1);
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const qsizetype colon = lines[i].indexOf(':');
        if (colon > 0)
            request.headers.insert(lines[i].left(colon).trimmed().toLower(),
                                   lines[i].mid(colon + 1).trimmed());
    }
    const qsizetype length = request.headers.value("content-length").toLongLong();
    if (data.size() < headEnd + 4 + length) {
        if (pending.continued)
            return;
        pending.continued = true;
        // Peeks at the reply this request will get, to know how to treat its expectation.
        const QList<Reply> replies = m_replies.value(request.path);
        const int index = m_answered.value(request.path);
        const Reply next = replies.isEmpty()
            ? Reply {404, {}}
            : replies.value(std::min(index, int(replies.size()) - 1));
        if (next.early) {
            request.body = data.mid(headEnd + 4);
            m_requests << request;
            pending.answeredRequest = m_requests.size() - 1;
            send(socket, nextReply(request.path));
            return; // keeps reading, to count what the client still sends
        }
        if (request.headers.value("expect").toLower() == "100-continue" && !next.silentOnExpect)
            socket->write("HTTP/1.1 100 Continue\r\n\r\n");
        return;
    }
    request.body = data.mid(headEnd + 4, length);
    m_pending.remove(socket);
    m_requests << request;
    send(socket, nextReply(request.path));
    socket->disconnectFromHost();
}
