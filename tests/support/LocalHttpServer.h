#pragma once

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QTcpServer>
#include <QUrl>

// A plain HTTP server on 127.0.0.1 for replies the real service never gives (a 500, a body that
// is not JSON) and for pictures: each path answers with what the test set for it, anything
// else with 404. One request per connection.
class LocalHttpServer : public QObject
{
    Q_OBJECT

public:
    struct Reply
    {
        int status = 200;
        QByteArray contentType = "application/json";
        QByteArray body;
    };

    LocalHttpServer();

    QUrl url() const;
    void set(const QString &path, Reply reply) { m_replies.insert(path, std::move(reply)); }
    int requestCount(const QString &path) const { return m_counts.value(path); }

private:
    void answer(QTcpSocket *socket);

    QTcpServer m_server;
    QHash<QString, Reply> m_replies;
    QHash<QString, int> m_counts;
};
