#include "cloud/StreamedPost.h"

#include "cloud/CappedReply.h"
#include "cloud/SharedNetwork.h"

#include <QCoreApplication>
#include <QIODevice>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QTcpSocket>

#include <qcoro/qcorosignal.h>

#include <algorithm>
#include <stdexcept>

namespace {

// Enough queued for the kernel to keep the link busy between two turns of the event loop, and
// little enough that a clip of any size costs a few buffers.
constexpr qint64 queueLimit = 4 << 20;
constexpr qint64 blockSize = 1 << 20;
// A server that does not know "Expect: 100-continue" never answers it; after this the body goes
// all the same (curl waits as long).
constexpr std::chrono::milliseconds continueWait {1000};
// The service answers an upload with a few hundred bytes of JSON.
constexpr qsizetype answerLimit = CappedReply::answerLimit;

QString protocolError()
{
    return QCoreApplication::translate("QHttp", "Protocol error");
}

struct DeleteLater
{
    void operator()(QObject *object) const { object->deleteLater(); }
};

} // namespace

QCoro::Task<StreamedPost::Answer> StreamedPost::send(QUrl url, Headers headers, QByteArray head,
                                                     std::unique_ptr<QIODevice> content,
                                                     qint64 length, QByteArray tail,
                                                     std::chrono::milliseconds idleLimit)
{
    // The post's signal resumes this coroutine, so the post is freed later, never on the spot.
    const std::unique_ptr<StreamedPost, DeleteLater> post(new StreamedPost(
        url, headers, std::move(head), std::move(content), length, std::move(tail), idleLimit));
    post->start();
    if (!post->m_done)
        co_await qCoro(post.get(), &StreamedPost::finished);
    if (post->m_failed)
        throw std::runtime_error(post->m_error.toStdString());
    co_return post->m_answer;
}

StreamedPost::StreamedPost(const QUrl &url, const Headers &headers, QByteArray head,
                           std::unique_ptr<QIODevice> content, qint64 length, QByteArray tail,
                           std::chrono::milliseconds idleLimit)
    : m_url(url)
    , m_secure(url.scheme() == QLatin1String("https"))
    , m_tail(std::move(tail))
    , m_content(std::move(content))
    , m_contentLeft(length)
{
    QByteArray target = url.path(QUrl::FullyEncoded).toLatin1();
    if (target.isEmpty())
        target = "/";
    if (url.hasQuery())
        target += '?' + url.query(QUrl::FullyEncoded).toLatin1();
    m_requestHead = "POST " + target + " HTTP/1.1\r\nHost: " +
        url.adjusted(QUrl::RemoveUserInfo).authority(QUrl::FullyEncoded).toLatin1() + "\r\n";
    for (const auto &[name, value] : headers)
        m_requestHead += name + ": " + value + "\r\n";
    // The service refuses a body it will not take (too large, a bad token) before it comes: the
    // body waits for its "100 Continue", so a refused clip costs a round trip, not its bytes.
    m_requestHead += "Content-Length: " + QByteArray::number(head.size() + length + m_tail.size()) +
        "\r\nExpect: 100-continue\r\nConnection: close\r\n\r\n";
    m_bodyHead = std::move(head);

    m_continueWait.setSingleShot(true);
    m_continueWait.setInterval(continueWait);
    connect(&m_continueWait, &QTimer::timeout, this, &StreamedPost::releaseBody);

    m_idle.setSingleShot(true);
    m_idle.setInterval(idleLimit);
    connect(&m_idle, &QTimer::timeout, this, [this] {
        // The words QNetworkAccessManager's callers already show for a transfer time-out.
        fail(QStringLiteral("The request timed out."));
    });
}

StreamedPost::~StreamedPost() = default;

void StreamedPost::start()
{
    const QString scheme = m_url.scheme();
    if (!m_url.isValid() || m_url.host().isEmpty() ||
        (scheme != QLatin1String("http") && scheme != QLatin1String("https"))) {
        fail(QCoreApplication::translate("QNetworkAccessManager", "Protocol \"%1\" is unknown")
                 .arg(scheme));
        return;
    }
    if (m_secure) {
        auto *socket = new QSslSocket(this);
        socket->setSslConfiguration(SharedNetwork::sslConfiguration());
        connect(socket, &QSslSocket::encrypted, this, &StreamedPost::sendRequest);
        connect(socket, &QSslSocket::encryptedBytesWritten, this, &StreamedPost::fill);
        m_socket = socket;
    } else {
        m_socket = new QTcpSocket(this);
        connect(m_socket, &QAbstractSocket::connected, this, &StreamedPost::sendRequest);
    }
    connect(m_socket, &QAbstractSocket::bytesWritten, this, &StreamedPost::fill);
    connect(m_socket, &QAbstractSocket::readyRead, this, &StreamedPost::readAnswer);
    connect(m_socket, &QAbstractSocket::errorOccurred, this, &StreamedPost::connectionEnded);
    connect(m_socket, &QAbstractSocket::disconnected, this, &StreamedPost::connectionEnded);

    m_idle.start();
    const quint16 port = quint16(m_url.port(m_secure ? 443 : 80));
    if (m_secure)
        static_cast<QSslSocket *>(m_socket)->connectToHostEncrypted(m_url.host(), port);
    else
        m_socket->connectToHost(m_url.host(), port);
}

void StreamedPost::sendRequest()
{
    if (m_done)
        return;
    m_idle.start();
    m_socket->write(m_requestHead);
    m_requestHead = {};
    m_continueWait.start();
}

void StreamedPost::releaseBody()
{
    if (m_done || m_bodyReleased)
        return;
    m_bodyReleased = true;
    m_continueWait.stop();
    m_socket->write(m_bodyHead);
    m_bodyHead = {};
    m_block.resize(blockSize);
    fill();
}

qint64 StreamedPost::queued() const
{
    qint64 bytes = m_socket->bytesToWrite();
    if (m_secure)
        bytes += static_cast<const QSslSocket *>(m_socket)->encryptedBytesToWrite();
    return bytes;
}

void StreamedPost::fill()
{
    if (m_done || m_block.isEmpty())
        return;
    m_idle.start();
    while (m_contentLeft > 0 && queued() < queueLimit) {
        const qint64 read = m_content->read(m_block.data(), std::min(blockSize, m_contentLeft));
        if (read <= 0) {
            // A clip that shrinks under the upload would make the announced length a lie.
            fail(read < 0 ? m_content->errorString()
                          : QCoreApplication::translate("QIODevice", "Unexpected end of file"));
            return;
        }
        m_contentLeft -= read;
        m_socket->write(m_block.constData(), read);
    }
    if (m_contentLeft == 0 && !m_tailQueued) {
        m_tailQueued = true;
        m_socket->write(m_tail);
        m_block = {};
        m_content.reset();
    }
}

void StreamedPost::readAnswer()
{
    if (m_done)
        return;
    m_idle.start();
    m_received += m_socket->readAll();
    if (m_received.size() > answerLimit) {
        fail(CappedReply::tooLargeText());
        return;
    }
    if (answerComplete(false))
        succeed();
}

void StreamedPost::connectionEnded()
{
    if (m_done)
        return;
    // A service may answer and close before it has read the whole body (a refused token, a clip
    // too large): what it said counts, not the broken pipe.
    m_received += m_socket->readAll();
    if (answerComplete(true)) {
        succeed();
        return;
    }
    if (m_socket->error() == QAbstractSocket::UnknownSocketError)
        fail(QCoreApplication::translate("QAbstractSocket",
                                         "The remote host closed the connection"));
    else if (m_socket->error() == QAbstractSocket::SslHandshakeFailedError)
        fail(QCoreApplication::translate("QHttpNetworkConnection", "SSL handshake failed: %1")
                 .arg(m_socket->errorString()));
    else
        fail(m_socket->errorString());
}

bool StreamedPost::answerComplete(bool closed)
{
    if (m_done)
        return false;
    while (m_status == 0) {
        if (!parseHead())
            return false;
    }
    // 204 and 304 never carry a body, whatever their headers say.
    if (m_status == 204 || m_status == 304)
        return true;
    if (m_chunked) {
        bool complete = false;
        if (!unchunk(complete)) {
            fail(protocolError());
            return false;
        }
        return complete;
    }
    if (m_bodyLength >= 0) {
        if (m_received.size() < m_bodyLength)
            return false;
        m_answer.body = m_received.left(m_bodyLength);
        return true;
    }
    if (closed)
        m_answer.body = m_received;
    return closed;
}

// Reads the status line and headers once they are all there; an informational answer (100
// Continue) is dropped and the real one awaited. False while no whole head is there, or when the
// head is not HTTP.
bool StreamedPost::parseHead()
{
    const qsizetype end = m_received.indexOf("\r\n\r\n");
    if (end < 0)
        return false;
    const QList<QByteArray> lines = m_received.left(end).split('\n');
    m_received.remove(0, end + 4);

    const QList<QByteArray> statusLine = lines.first().trimmed().split(' ');
    bool numeric = false;
    const int status = statusLine.value(1).toInt(&numeric);
    if (!statusLine.first().startsWith("HTTP/1.") || !numeric || status < 100 || status > 999) {
        fail(protocolError());
        return false;
    }
    if (status == 100)
        releaseBody();
    if (status < 200)
        return true;
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const qsizetype colon = lines[i].indexOf(':');
        if (colon <= 0)
            continue;
        const QByteArray name = lines[i].left(colon).trimmed().toLower();
        const QByteArray value = lines[i].mid(colon + 1).trimmed();
        if (name == "transfer-encoding") {
            m_chunked = value.toLower().contains("chunked");
        } else if (name == "content-length") {
            bool ok = false;
            m_bodyLength = value.toLongLong(&ok);
            if (!ok || m_bodyLength < 0) {
                fail(protocolError());
                return false;
            }
        }
    }
    m_status = status;
    m_answer.status = status;
    return true;
}

// Decodes a chunked body from the start each time: answers are small. False when the framing is
// broken; `complete` once the last chunk and the trailers have arrived.
bool StreamedPost::unchunk(bool &complete)
{
    QByteArray body;
    qsizetype at = 0;
    for (;;) {
        const qsizetype lineEnd = m_received.indexOf("\r\n", at);
        if (lineEnd < 0)
            return true;
        QByteArray sizeText = m_received.mid(at, lineEnd - at);
        if (const qsizetype extension = sizeText.indexOf(';'); extension >= 0)
            sizeText.truncate(extension);
        bool ok = false;
        const qint64 size = sizeText.trimmed().toLongLong(&ok, 16);
        if (!ok || size < 0 || size > answerLimit)
            return false;
        at = lineEnd + 2;
        if (size == 0) {
            // Trailer lines, if any, end with an empty line.
            const bool noTrailers = m_received.mid(at, 2) == "\r\n";
            if (!noTrailers && m_received.indexOf("\r\n\r\n", at) < 0)
                return true;
            m_answer.body = body;
            complete = true;
            return true;
        }
        if (m_received.size() < at + size + 2)
            return true;
        body += m_received.mid(at, size);
        at += size;
        if (m_received.mid(at, 2) != "\r\n")
            return false;
        at += 2;
    }
}

void StreamedPost::succeed()
{
    m_done = true;
    m_idle.stop();
    m_continueWait.stop();
    m_socket->abort();
    emit finished();
}

void StreamedPost::fail(const QString &sentence)
{
    if (m_done)
        return;
    m_done = true;
    m_failed = true;
    m_error = sentence;
    m_idle.stop();
    m_continueWait.stop();
    if (m_socket)
        m_socket->abort();
    emit finished();
}
