#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QTimer>
#include <QUrl>

#include <chrono>
#include <memory>
#include <utility>

#include <qcoro/qcorotask.h>

class QAbstractSocket;
class QIODevice;

// One HTTP/1.1 POST on a connection of its own, for bodies too large to hold in memory: a head,
// the bytes of a device, and a tail. QNetworkAccessManager keeps only a few tens of kilobytes
// queued on the socket and refills through the event loop, which makes a large upload several
// times slower than the link allows; this keeps a few megabytes queued and reads the device in
// large blocks. "Connection: close" is sent, so the answer may also end with the connection.
//
// The body waits for the server's "100 Continue" ("Expect: 100-continue"), so a server that
// refuses the request on its head (a body over its limit, a refused token) answers before a byte
// of the body is sent, and the body is never sent. A server that ignores the expectation gets the
// body after a second.
//
// Main thread only. Failures below HTTP throw a std::runtime_error with Qt's own sentence.
class StreamedPost : public QObject
{
    Q_OBJECT
public:
    using Headers = QList<std::pair<QByteArray, QByteArray>>;
    struct Answer
    {
        int status = 0;
        QByteArray body;
    };

    // Sends `head`, then `length` bytes read from `content` (opened for reading), then `tail`.
    // The call fails when no byte moves either way for `idleLimit`. https:// trusts what the
    // service's other calls trust.
    static QCoro::Task<Answer> send(QUrl url, Headers headers, QByteArray head,
                                    std::unique_ptr<QIODevice> content, qint64 length,
                                    QByteArray tail, std::chrono::milliseconds idleLimit);

    ~StreamedPost() override;

signals:
    void finished();

private:
    StreamedPost(const QUrl &url, const Headers &headers, QByteArray head,
                 std::unique_ptr<QIODevice> content, qint64 length, QByteArray tail,
                 std::chrono::milliseconds idleLimit);

    void start();
    void sendRequest();
    // Sends the body: on "100 Continue", or when the server kept quiet for a while.
    void releaseBody();
    void fill();
    qint64 queued() const;
    void readAnswer();
    void connectionEnded();
    // Whether the answer read so far is whole; `closed` when no more will come.
    bool answerComplete(bool closed);
    bool parseHead();
    bool unchunk(bool &complete);
    void succeed();
    void fail(const QString &sentence);

    QUrl m_url;
    bool m_secure = false;
    QByteArray m_requestHead;
    QByteArray m_bodyHead; // the body's first bytes, before the content
    QByteArray m_tail;
    std::unique_ptr<QIODevice> m_content;
    qint64 m_contentLeft = 0;
    QByteArray m_block; // reused for every read of the content; empty until the body may go
    bool m_bodyReleased = false;
    bool m_tailQueued = false;

    QAbstractSocket *m_socket = nullptr;
    QTimer m_idle;
    QTimer m_continueWait;

    QByteArray m_received; // the answer's bytes not yet understood
    int m_status = 0;
    bool m_chunked = false;
    qint64 m_bodyLength = -1; // -1 until the end of the connection
    Answer m_answer;

    bool m_done = false;
    bool m_failed = false;
    QString m_error;
};
