// What a hostile or broken service (or whoever answers in its place) tries against the client:
// an answer too large to hold, however it is framed; a sign-in page that is not the service's
// own; and, from the other side, an upload the service refuses on sight, whose body must then
// never be sent.

#include "BrowserCatcher.h"
#include "CloudTestSupport.h"
#include "RawHttpServer.h"
#include "TestServer.h"

#include "cloud/AccountStore.h"
#include "cloud/ClipCloud.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTcpServer>
#include <QTcpSocket>

#include <atomic>
#include <cstdlib>

using namespace std::chrono_literals;

namespace {

// Answers each path with its head and body and then as many bytes of filler as it was given, as
// fast as the client takes them.
class FloodServer : public QObject
{
public:
    struct Answer
    {
        QByteArray head;
        QByteArray body;
        qint64 filler = 0;
    };

    FloodServer()
    {
        m_server.listen(QHostAddress::LocalHost);
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = m_server.nextPendingConnection())
                serve(socket);
        });
    }

    void answer(const QByteArray &path, Answer answer) { m_answers[path] = std::move(answer); }
    QString url() const { return QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort()); }

private:
    void serve(QTcpSocket *socket)
    {
        socket->setParent(this);
        auto request = std::make_shared<QByteArray>();
        auto path = std::make_shared<QByteArray>();
        auto poured = std::make_shared<qint64>(0);
        const auto pour = [this, socket, path, poured] {
            static const QByteArray block(64 * 1024, ' ');
            const qint64 filler = m_answers.value(*path).filler;
            while (*poured < filler && socket->bytesToWrite() < 4 * block.size()) {
                socket->write(block);
                *poured += block.size();
            }
        };
        connect(socket, &QTcpSocket::readyRead, socket, [this, socket, request, path, pour] {
            *request += socket->readAll();
            if (!path->isEmpty() || !request->contains("\r\n\r\n"))
                return;
            *path = request->split(' ').value(1);
            const Answer answer = m_answers.value(*path);
            socket->write(answer.head + answer.body);
            pour();
        });
        connect(socket, &QTcpSocket::bytesWritten, socket, pour);
    }

    QTcpServer m_server;
    QMap<QByteArray, Answer> m_answers;
};

QCoro::Task<JsonObject> get(const QString &path)
{
    return ClipCloud::request(path, QStringLiteral("GET"), std::nullopt, false, std::nullopt);
}

const Outcome tooLarge = Outcome::other(QStringLiteral("The service's answer was too large."));

class HugeReply : public TempHomeTest
{
};

class ForeignPage : public TempHomeTest
{
};

class OversizedUpload : public TempHomeTest
{
protected:
    QUrl writeClip(qsizetype size)
    {
        const QString path = QDir(home()).filePath(QStringLiteral("Clip A.mp4"));
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(size, 'v'));
        return QUrl::fromLocalFile(path);
    }
};

} // namespace

// Each way of sending a body past the limit: announced up front, streamed without a length, or
// compressed small and decoded large (spaces around JSON, so a whole read would even parse; Qt
// itself refuses to decode past 10 MB at such a ratio, and that refusal is a failure too). The
// service's real answers are a few hundred bytes.
TEST_F(HugeReply, AnAnswerPastTheLimitIsCutOffHoweverItComes)
{
    const qint64 flood = qint64(256) << 20;
    const QByteArray json = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n";
    // zlib's own framing, as "deflate" is on the web; qCompress puts the length before it.
    const auto deflated = [](qsizetype size) {
        return qCompress(QByteArray(size, ' ') + "{}", 9).mid(4);
    };
    const QByteArray bomb = deflated(8 << 20);
    const QByteArray bigBomb = deflated(64 << 20);
    FloodServer server;
    server.answer("/announced", {json + "Content-Length: 4294967296\r\n\r\n", {}, flood});
    server.answer("/streamed", {json + "Connection: close\r\n\r\n", {}, flood});
    server.answer("/bomb",
                  {json + "Content-Encoding: deflate\r\nContent-Length: " +
                       QByteArray::number(bomb.size()) + "\r\nConnection: close\r\n\r\n",
                   bomb, 0});
    server.answer("/big-bomb",
                  {json + "Content-Encoding: deflate\r\nContent-Length: " +
                       QByteArray::number(bigBomb.size()) + "\r\nConnection: close\r\n\r\n",
                   bigBomb, 0});
    server.answer("/fine", {json + "Content-Length: 2\r\n\r\n", "{}", 0});
    setenv("VANTREL_SERVICE_URL", server.url().toUtf8().constData(), 1);
    ClipCloud::setTimeouts(10s, 10s);

    QElapsedTimer clock;
    clock.start();
    for (const char *path : {"/announced", "/streamed", "/bomb"})
        EXPECT_EQ(outcomeOf(get(QString::fromLatin1(path))), tooLarge) << path;
    // The floods are 256 MB each: read whole, they would take seconds and gigabytes.
    EXPECT_LT(clock.elapsed(), 5000);
    std::printf("three floods cut off in %lld ms\n", clock.elapsed());
    // A body Qt refuses to decode is no answer either (it used to read as an empty success).
    EXPECT_EQ(outcomeOf(get(QStringLiteral("/big-bomb"))).kind, Outcome::Kind::other);
    EXPECT_EQ(outcomeOf(get(QStringLiteral("/fine"))), Outcome());
}

// The sign-in page opens in the user's browser on the service's word alone. A page elsewhere, a
// file, a script or a link of some other program never opens: the sign-in does not start.
TEST_F(ForeignPage, ASignInPageThatIsNotTheServicesOwnIsNeverOpened)
{
    TestServer server;
    QStringList pages = {QStringLiteral("file:///etc/passwd"),
                         QStringLiteral("https://evil.example/device?code=C1"),
                         QStringLiteral("http://192.0.2.1/device?code=C1"),
                         QStringLiteral("javascript:alert(document.cookie)"),
                         QStringLiteral("smb://192.0.2.1/share"),
                         QStringLiteral("vantrel://auth?code=C1")};
    std::atomic<int> started {0};
    server.http().Post("/v1/auth/device", [&](const httplib::Request &, httplib::Response &reply) {
        const int index = started++;
        const std::string page = index < pages.size()
            ? pages[index].toStdString()
            : server.url().toStdString() + "/device?code=C1";
        reply.set_content(R"({"code":"C1","url":")" + page + "\"}", "application/json");
    });
    server.answer("GET", "/v1/auth/device/C1", 204, "");
    server.start();
    BrowserCatcher browser;
    AccountStore &account = AccountStore::shared();
    account.setPollTiming(20ms, 1);

    for (const QString &page : pages) {
        account.beginSignIn();
        ASSERT_TRUE(waitUntil([&] { return !account.isSigningIn(); }, 5000)) << page.toStdString();
        EXPECT_EQ(account.loginMessage(), QStringLiteral("Could not start sign-in."))
            << page.toStdString();
    }
    EXPECT_EQ(browser.opened, QList<QUrl>());
    // The service's own page opens.
    account.beginSignIn();
    ASSERT_TRUE(waitUntil([&] { return !account.isSigningIn(); }, 5000));
    EXPECT_EQ(browser.opened,
              QList<QUrl>({QUrl(server.url() + QStringLiteral("/device?code=C1"))}));
}

// A service refuses a clip over its limit on the request's head. Without "Expect: 100-continue"
// the client would be sending the whole clip while the refusal waits; with it, not one byte of
// the body goes. A server that does not know the expectation still gets the clip.
TEST_F(OversizedUpload, ARefusalOnTheHeadMeansNoByteOfTheBodyIsSent)
{
    using Reply = RawHttpServer::Reply;
    RawHttpServer server;
    server.answer("/v1/clips",
                  {Reply::onHead(413, R"({"detail":"Clip is too large."})"),
                   Reply(200, R"({"id":"c2","url":"https://svc.test/c/c2"})"),
                   Reply::ignoringExpect(200, R"({"id":"c3","url":"https://svc.test/c/c3"})")});
    setenv("VANTREL_SERVICE_URL", server.url().toUtf8().constData(), 1);
    const qsizetype size = 8 << 20;
    const QUrl clip = writeClip(size);

    EXPECT_EQ(outcomeOf(ClipCloud::upload(clip, QStringLiteral("t"))),
              Outcome::message(QStringLiteral("Clip is too large.")));
    waitUntil([] { return false; }, 300); // for any body bytes still on their way
    ASSERT_EQ(server.requests().size(), 1);
    EXPECT_EQ(server.requests()[0].headers.value("expect"), "100-continue");
    EXPECT_EQ(server.requests()[0].body.size(), 0);

    EXPECT_EQ(await(ClipCloud::upload(clip, QStringLiteral("t"))).id, QStringLiteral("c2"));
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(await(ClipCloud::upload(clip, QStringLiteral("t"))).id, QStringLiteral("c3"));
    EXPECT_GE(clock.elapsed(), 900); // it waited for a "100 Continue" that never came
    ASSERT_EQ(server.requests().size(), 3);
    for (int i : {1, 2})
        EXPECT_GT(server.requests()[i].body.size(), size) << i;
}
