#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QObject>
#include <QTcpServer>

#include <utility>

class QTcpSocket;

// An HTTP/1.1 server on 127.0.0.1 that keeps every request exactly as it arrived, body bytes
// included, and answers each with the next of the replies given for its path (the last one
// repeats; a path without replies gets 404). It runs in the test's own event loop. cpp-httplib
// cannot hand over a multipart body unparsed, hence this one.
class RawHttpServer : public QObject
{
    Q_OBJECT
public:
    struct Request
    {
        QByteArray method;
        QByteArray path;
        QMap<QByteArray, QByteArray> headers; // names in lower case
        QByteArray body;
    };
    struct Reply
    {
        Reply() = default;
        Reply(int status, QByteArray body)
            : status(status)
            , body(std::move(body))
        {
        }
        // Bytes sent as they are in place of a whole answer, to frame it in other ways.
        static Reply verbatim(QByteArray bytes)
        {
            Reply reply(0, {});
            reply.raw = std::move(bytes);
            return reply;
        }

        int status = 200;
        QByteArray body;
        QByteArray raw;
    };

    RawHttpServer();
    void answer(const QByteArray &path, QList<Reply> replies) { m_replies[path] = replies; }
    QString url() const;
    const QList<Request> &requests() const { return m_requests; }

private:
    void read(QTcpSocket *socket);

    QTcpServer m_server;
    QMap<QByteArray, QList<Reply>> m_replies;
    QMap<QByteArray, int> m_answered;
    QList<Request> m_requests;
    QMap<QTcpSocket *, QByteArray> m_pending;
};
