// Uploading a clip: the multipart body byte for byte as the server received it, the reply's
// rules, and the record of which file became which hosted clip.

#include "CloudTestSupport.h"
#include "RawHttpServer.h"

#include "cloud/ClipCloud.h"
#include "cloud/HostedClips.h"
#include "core/Preferences.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTcpServer>

#include <algorithm>
#include <cstdlib>
#include <memory>

using namespace std::chrono_literals;

namespace {

class UploadTest : public TempHomeTest
{
protected:
    // A clip of random bytes, with CR LF and dashes among them, as in any real file.
    QUrl writeClip(const QString &name, qsizetype size)
    {
        const QString path = QDir(home()).filePath(name);
        QByteArray bytes(size, Qt::Uninitialized);
        QRandomGenerator generator(7);
        for (char &byte : bytes)
            byte = char(generator.bounded(256));
        bytes.replace(0, 6, "\r\n--\r\n");
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
        return QUrl::fromLocalFile(path);
    }

    RawHttpServer &serve(QList<RawHttpServer::Reply> replies)
    {
        server = std::make_unique<RawHttpServer>();
        server->answer("/v1/clips", std::move(replies));
        setenv("VANTREL_SERVICE_URL", server->url().toUtf8().constData(), 1);
        return *server;
    }

    std::unique_ptr<RawHttpServer> server;
};

QByteArray fileBytes(const QUrl &url)
{
    QFile file(url.toLocalFile());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

TEST_F(UploadTest, TheBodyIsTheFormByteForByteWithAFreshBoundaryEachTime)
{
    RawHttpServer &service =
        serve({{200, R"({"id":"c1","url":"https://svc.test/c/c1","name":"Best clip"})"},
               {201, R"({"id":"c2","url":"https://svc.test/c/c2"})"}});
    const QString name = QStringLiteral("Clip 2026-01-02 10-11-12 A1B2C3.v2.mp4");
    const QUrl clip = writeClip(name, 700 * 1024 + 3);

    const SharedClip first = await(ClipCloud::upload(clip, QStringLiteral("tok-1")));
    EXPECT_EQ(first.id, QStringLiteral("c1"));
    EXPECT_EQ(first.url, QUrl(QStringLiteral("https://svc.test/c/c1")));
    EXPECT_EQ(first.name, QStringLiteral("Best clip"));
    // No name in the reply: the file's own.
    const SharedClip second = await(ClipCloud::upload(clip, QStringLiteral("tok-1")));
    EXPECT_EQ(second.id, QStringLiteral("c2"));
    EXPECT_EQ(second.name, name);

    ASSERT_EQ(service.requests().size(), 2);
    QStringList boundaries;
    for (const RawHttpServer::Request &upload : service.requests()) {
        EXPECT_EQ(upload.method, "POST");
        EXPECT_EQ(upload.path, "/v1/clips");
        EXPECT_EQ(upload.headers.value("authorization"), "Bearer tok-1");
        EXPECT_FALSE(upload.headers.contains("accept"));
        const QString type = QString::fromLatin1(upload.headers.value("content-type"));
        const QRegularExpressionMatch match =
            QRegularExpression(
                QStringLiteral("^multipart/form-data; boundary=(Boundary-[0-9A-F]{8}-"
                               "[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12})$"))
                .match(type);
        ASSERT_TRUE(match.hasMatch()) << type.toStdString();
        const QByteArray boundary = match.captured(1).toLatin1();
        boundaries << match.captured(1);

        // The name part carries the base name (only the last extension goes).
        const QByteArray expected = "--" + boundary + "\r\n" +
            "Content-Disposition: form-data; name=\"name\"\r\n\r\n" +
            "Clip 2026-01-02 10-11-12 A1B2C3.v2\r\n" + "--" + boundary + "\r\n" +
            "Content-Disposition: form-data; name=\"file\"; filename=\"" + name.toUtf8() +
            "\"\r\n" + "Content-Type: video/mp4\r\n\r\n" + fileBytes(clip) + "\r\n--" + boundary +
            "--\r\n";
        EXPECT_EQ(upload.body.size(), expected.size());
        EXPECT_TRUE(upload.body == expected)
            << "first difference at byte "
            << std::mismatch(upload.body.begin(), upload.body.end(), expected.begin(),
                             expected.end())
                    .first -
                upload.body.begin();
    }
    EXPECT_NE(boundaries[0], boundaries[1]);
}

TEST_F(UploadTest, RepliesWithoutAUsableLinkOrRefusalsFail)
{
    RawHttpServer &service = serve({{200, R"({"url":"https://svc.test/c/x"})"},
                                    {200, R"({"id":"x","url":"::not a url"})"},
                                    {200, R"({"id":"x","url":7})"},
                                    {200, "[]"},
                                    {200, ""},
                                    {401, R"({"detail":"Token revoked."})"},
                                    {413, R"({"detail":"Clip is too large."})"}});
    const QUrl clip = writeClip(QStringLiteral("Clip A.mp4"), 1000);
    const Outcome noLink = Outcome::message(QStringLiteral("Upload did not return a link."));
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(outcomeOf(ClipCloud::upload(clip, QStringLiteral("t"))), noLink) << i;
    // An empty success body is not JSON.
    EXPECT_EQ(outcomeOf(ClipCloud::upload(clip, QStringLiteral("t"))).kind, Outcome::Kind::other);
    EXPECT_EQ(outcomeOf(ClipCloud::upload(clip, QStringLiteral("t"))), Outcome::unauthorized());
    EXPECT_EQ(outcomeOf(ClipCloud::upload(clip, QStringLiteral("t"))),
              Outcome::message(QStringLiteral("Clip is too large.")));

    // A file that cannot be read fails before anything is sent.
    const qsizetype sent = service.requests().size();
    const Outcome missing = outcomeOf(ClipCloud::upload(
        QUrl::fromLocalFile(home() + QStringLiteral("/gone.mp4")), QStringLiteral("t")));
    EXPECT_EQ(missing.kind, Outcome::Kind::other);
    EXPECT_TRUE(missing.text.contains(QStringLiteral("gone.mp4"))) << missing;
    EXPECT_EQ(service.requests().size(), sent);
}

TEST_F(UploadTest, TheAnswerIsReadHoweverTheServerFramesIt)
{
    using Reply = RawHttpServer::Reply;
    serve({Reply::verbatim(
               "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
               "7;note=x\r\n{\"id\":\"\r\n22\r\nc1\",\"url\":\"https://svc.test/c/c1\"}\r\n"
               "0\r\nX-Trailer: yes\r\n\r\n"),
           // No length: the body ends with the connection.
           Reply::verbatim("HTTP/1.1 413 Too Large\r\n\r\n{\"detail\":\"Clip is too large.\"}"),
           Reply::verbatim("HTTP/1.1 100 Continue\r\n\r\n"
                           "HTTP/1.1 201 Created\r\nContent-Length: 41\r\n\r\n"
                           "{\"id\":\"c3\",\"url\":\"https://svc.test/c/c3\"}"),
           Reply::verbatim("HTTP/1.1 200 OK\r\nContent-Length: 90\r\n\r\n{\"id\":\"c4\""),
           Reply::verbatim("SSH-2.0-OpenSSH_9.6\r\n\r\n")});
    const QUrl clip = writeClip(QStringLiteral("Clip A.mp4"), 300 * 1024);

    const SharedClip chunked = await(ClipCloud::upload(clip, QStringLiteral("t")));
    EXPECT_EQ(chunked.id, QStringLiteral("c1"));
    EXPECT_EQ(chunked.url, QUrl(QStringLiteral("https://svc.test/c/c1")));
    EXPECT_EQ(outcomeOf(ClipCloud::upload(clip, QStringLiteral("t"))),
              Outcome::message(QStringLiteral("Clip is too large.")));
    EXPECT_EQ(await(ClipCloud::upload(clip, QStringLiteral("t"))).id, QStringLiteral("c3"));
    // Closed before the announced length: a failure below HTTP, not a half-read reply.
    EXPECT_EQ(outcomeOf(ClipCloud::upload(clip, QStringLiteral("t"))),
              Outcome::other(QStringLiteral("The remote host closed the connection")));
    EXPECT_EQ(outcomeOf(ClipCloud::upload(clip, QStringLiteral("t"))),
              Outcome::other(QStringLiteral("Protocol error")));
}

TEST_F(UploadTest, FailuresBelowHttpCarryQtsSentence)
{
    const QUrl clip = writeClip(QStringLiteral("Clip A.mp4"), 48 << 20);

    // A server whose connection the kernel makes but nobody reads: once the buffers are full
    // nothing moves, and only the idle limit ends the upload.
    QTcpServer stalled;
    stalled.setMaxPendingConnections(0);
    ASSERT_TRUE(stalled.listen(QHostAddress::LocalHost));
    setenv("VANTREL_SERVICE_URL",
           qPrintable(QStringLiteral("http://127.0.0.1:%1").arg(stalled.serverPort())), 1);
    ClipCloud::setTimeouts(ClipCloud::requestTimeout(), 500ms);
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(outcomeOf(ClipCloud::upload(clip, QStringLiteral("t"))),
              Outcome::other(QStringLiteral("The request timed out.")));
    EXPECT_LT(clock.elapsed(), 20000);

    // The same address with nobody listening.
    stalled.close();
    EXPECT_EQ(outcomeOf(ClipCloud::upload(clip, QStringLiteral("t"))),
              Outcome::other(QStringLiteral("Connection refused")));
}

TEST_F(UploadTest, HostedClipsKeepTheLatestIdPerFileName)
{
    EXPECT_TRUE(HostedClips::all().isEmpty());
    Preferences::open()->setValue(QStringLiteral("hostedClipIds"), QStringLiteral("garbage"));
    EXPECT_TRUE(HostedClips::all().isEmpty());

    const QString folder = home() + QStringLiteral("/Videos/Vantrel/");
    HostedClips::remember(QUrl::fromLocalFile(folder + QStringLiteral("Clip A.mp4")),
                          QStringLiteral("id-1"));
    HostedClips::remember(QUrl::fromLocalFile(folder + QStringLiteral("Clip B.mp4")),
                          QStringLiteral("id-2"));
    HostedClips::remember(QUrl::fromLocalFile(folder + QStringLiteral("Clip A.mp4")),
                          QStringLiteral("id-3"));
    const QMap<QString, QString> expected {{QStringLiteral("Clip A.mp4"), QStringLiteral("id-3")},
                                           {QStringLiteral("Clip B.mp4"), QStringLiteral("id-2")}};
    EXPECT_EQ(HostedClips::all(), expected);
}
