// Uploading a clip: the multipart body byte for byte as the server received it, the reply's
// rules, and the record of which file became which hosted clip.

#include "CloudTestSupport.h"
#include "RawHttpServer.h"

#include "cloud/ClipCloud.h"
#include "cloud/HostedClips.h"
#include "core/Preferences.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QRegularExpression>

#include <algorithm>
#include <cstdlib>
#include <memory>

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
