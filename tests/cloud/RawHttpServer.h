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
// repeats; a path without replies gets 404). A request that expects "100 Continue" gets it once
// its head is in, as from any server that takes it, unless its reply is given as `onHead`. It
// runs in the test's own event loop. cpp-httplib cannot hand over a multipart body unparsed,
// hence this one.
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

        // Answered as soon as the head is in, without waiting for (or inviting) the body, as a
        // server refuses what it will not take; whatever body bytes still come are kept.
        static Reply onHead(int status, QByteArray body)
        {
            Reply reply(status, std::move(body));
            reply.early = true;
            return reply;
        }
        // Never answers "Expect: 100-continue", as a server that does not know it.
        static Reply ignoringExpect(int status, QByteArray body)
        {
            Reply reply(status, std::move(body));
            reply.silentOnExpect = true;
            return reply;
        }

        int status = 200;
        QByteArray body;
        QByteArray raw;
        bool early = false;
        bool silentOnExpect = false;
    };

    RawHttpServer();
    void answer(const QByteArray &path, QList<Reply> replies) { m_replies[path] = replies; }
    QString url() const;
    const QList<Request> &requests() const { return m_requests; }

private:
    struct Pending
    {
        QByteArray data;
        bool continued = false;
        qsizetype answeredRequest = -1; // the request answered on its head, still taking bytes
    };

    void read(QTcpSocket *socket);
    Reply nextReply(const QByteArray &path);
    void send(QTcpSocket *socket, const Reply &reply);

    QTcpServer m_server;
    QMap<QByteArray, QList<Reply>> m_replies;
    QMap<QByteArray, int> m_answered;
    QList<Request> m_requests;
    QMap<QTcpSocket *, Pending> m_pending;
};
