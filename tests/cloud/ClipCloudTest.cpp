// The service client's rules for building requests and reading replies, against small HTTP
// servers on 127.0.0.1 that answer each case.

#include "CloudTestSupport.h"
#include "TestServer.h"

#include "cloud/ClipCloud.h"
#include "support/TestEnvironment.h"

#include <QTcpServer>
#include <QTcpSocket>

using namespace std::chrono_literals;

namespace {

QCoro::Task<JsonObject> get(const QString &path, bool allowPending = false)
{
    return ClipCloud::request(path, QStringLiteral("GET"), std::nullopt, allowPending,
                              std::nullopt);
}

class ClipCloudTest : public TempHomeTest
{
protected:
    TestServer server;
};

} // namespace

TEST_F(ClipCloudTest, FailedStatusesBecomeTheServicesOwnWordsOrTheRawBody)
{
    server.answer("GET", "/unauthorized", 401, R"({"detail":"Token expired"})");
    server.answer("GET", "/busy", 500, R"({"detail":"Server busy"})");
    server.answer("GET", "/numeric-detail", 500, R"({"detail":42})");
    server.answer("GET", "/no-detail", 500, R"({"error":"boom"})");
    server.answer("GET", "/html", 503, "<h1>Down</h1>", "text/html");
    server.answer("GET", "/empty", 502, "");
    server.answer("GET", "/binary", 502, std::string("\xff\xfe\x80oops", 7), "text/plain");
    server.answer("GET", "/gone", 410, R"({"detail":"Code expired."})");
    server.start();

    EXPECT_EQ(outcomeOf(get("/unauthorized")), Outcome::unauthorized());
    EXPECT_EQ(outcomeOf(get("/busy")), Outcome::message("Server busy"));
    EXPECT_EQ(outcomeOf(get("/numeric-detail")), Outcome::message(R"({"detail":42})"));
    EXPECT_EQ(outcomeOf(get("/no-detail")), Outcome::message(R"({"error":"boom"})"));
    EXPECT_EQ(outcomeOf(get("/html")), Outcome::message("<h1>Down</h1>"));
    EXPECT_EQ(outcomeOf(get("/empty")), Outcome::message(""));
    EXPECT_EQ(outcomeOf(get("/binary")), Outcome::message("Request failed."));
    // Even the poll, which takes 204 as "not yet", fails on any other refusal.
    EXPECT_EQ(outcomeOf(get("/gone", true)), Outcome::message("Code expired."));
    EXPECT_EQ(outcomeOf(get("/missing")), Outcome::message(""));
}

TEST_F(ClipCloudTest, SuccessfulBodiesReadAsObjectsAndOnlyNonJsonFails)
{
    server.answer("GET", "/object", 200, R"({"name":"Ada","count":3,"flag":true,"nested":{}})");
    server.answer("GET", "/array", 200, "[]");
    server.answer("GET", "/text", 200, "all good", "text/plain");
    server.answer("GET", "/no-content", 204, "");
    server.answer("GET", "/created-empty", 201, "");
    server.start();

    const JsonObject object = await(get("/object"));
    EXPECT_EQ(object.string("name"), QStringLiteral("Ada"));
    EXPECT_EQ(object.number("count"), 3.0);
    EXPECT_EQ(object.boolean("flag"), true);
    EXPECT_TRUE(object.object("nested").has_value());
    // The wrong type reads as absent, as a missing key does.
    EXPECT_FALSE(object.string("count").has_value());
    EXPECT_FALSE(object.boolean("name").has_value());
    EXPECT_FALSE(object.string("nope").has_value());

    EXPECT_TRUE(await(get("/array")).isEmpty());
    EXPECT_TRUE(await(get("/no-content")).isEmpty());
    EXPECT_TRUE(await(get("/no-content", true)).isEmpty());
    EXPECT_TRUE(await(get("/created-empty")).isEmpty());
    const Outcome text = outcomeOf(get("/text"));
    EXPECT_EQ(text.kind, Outcome::Kind::other) << text;
    EXPECT_FALSE(text.text.isEmpty());
}

TEST_F(ClipCloudTest, RequestsCarryTheirHeadersBodyAndPercentEncodedCode)
{
    server.answer("POST", "/v1/packs", 200, R"({"url":"https://example.test/p/1"})");
    server.answer("GET", "/v1/me", 200, "{}");
    server.http().Get(R"(/v1/auth/device/(.*))",
                      [this](const httplib::Request &request, httplib::Response &response) {
                          server.record(request);
                          response.status = 204;
                      });
    server.start();

    const QUrl pack = await(
        ClipCloud::createPack(QStringLiteral("Vantrel clips"),
                              {QStringLiteral("b2"), QStringLiteral("a1"), QStringLiteral("c3")},
                              QStringLiteral("tok-123")));
    EXPECT_EQ(pack, QUrl(QStringLiteral("https://example.test/p/1")));
    await(ClipCloud::me(QStringLiteral("tok-456")));
    const DevicePoll poll = await(ClipCloud::pollDevice(QStringLiteral("AB 12/é?#%")));
    EXPECT_FALSE(poll.token.has_value());

    const std::vector<TestServer::Seen> seen = server.seen();
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].method, "POST");
    EXPECT_EQ(seen[0].header("Accept"), "application/json");
    EXPECT_EQ(seen[0].header("Authorization"), "Bearer tok-123");
    EXPECT_EQ(seen[0].header("Content-Type"), "application/json");
    EXPECT_EQ(seen[0].body, R"({"clip_ids":["b2","a1","c3"],"title":"Vantrel clips"})");

    EXPECT_EQ(seen[1].method, "GET");
    EXPECT_EQ(seen[1].header("Authorization"), "Bearer tok-456");
    EXPECT_FALSE(seen[1].has("Content-Type"));

    // Characters a path may hold stay; the rest are encoded, '%' itself included.
    EXPECT_EQ(seen[2].path, "/v1/auth/device/AB%2012/%C3%A9%3F%23%25");
    EXPECT_EQ(seen[2].header("Accept"), "application/json");
    EXPECT_FALSE(seen[2].has("Authorization"));
}

TEST_F(ClipCloudTest, RepliesMissingTheirFieldsFallBackOrFail)
{
    int round = 0;
    server.http().Post("/v1/auth/device",
                       [&](const httplib::Request &, httplib::Response &response) {
                           const std::string page = server.url().toStdString() + "/device";
                           const std::string replies[] = {
                               R"({"code":"K7Q2","url":")" + page + R"(?code=K7Q2"})",
                               R"({"code":"K7Q2"})",
                               R"({"code":"K7Q2","url":"not a url"})",
                               R"({"code":5,"url":")" + page + "\"}",
                           };
                           response.set_content(replies[round++ % 4], "application/json");
                       });
    server.answer("GET", "/v1/me", 200,
                  R"({"id":"u1","email":"a@b.c","discord_linked":"true","google_linked":true,)"
                  R"("vantrel_code":"VT-9","avatar_url":"not parsed","name":null})");
    server.answer("GET", "/v1/auth/device/empty", 200, R"({"token":""})");
    server.answer("GET", "/v1/auth/device/number", 200, R"({"token":12})");
    server.answer("GET", "/v1/auth/device/done", 200, R"({"token":"tok-9"})");
    server.answer("POST", "/v1/packs", 200, R"({"url":"/relative"})");
    server.start();

    const DeviceStart start = await(ClipCloud::createDevice());
    EXPECT_EQ(start.code, QStringLiteral("K7Q2"));
    EXPECT_EQ(start.url, QUrl(server.url() + QStringLiteral("/device?code=K7Q2")));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(outcomeOf(ClipCloud::createDevice()),
                  Outcome::message(QStringLiteral("Could not start sign-in.")));

    const AccountProfile profile = await(ClipCloud::me(QStringLiteral("t")));
    AccountProfile expected;
    expected.id = QStringLiteral("u1");
    expected.email = QStringLiteral("a@b.c");
    expected.vantrelCode = QStringLiteral("VT-9");
    expected.avatarURL = QStringLiteral("not parsed");
    expected.googleLinked = true;
    EXPECT_EQ(profile, expected); // name "Vantrel", Discord not linked (a string is not true)

    EXPECT_FALSE(await(ClipCloud::pollDevice(QStringLiteral("empty"))).token);
    EXPECT_FALSE(await(ClipCloud::pollDevice(QStringLiteral("number"))).token);
    EXPECT_EQ(await(ClipCloud::pollDevice(QStringLiteral("done"))).token, QStringLiteral("tok-9"));
    EXPECT_EQ(outcomeOf(ClipCloud::createPack(QStringLiteral("t"), {}, QStringLiteral("t"))),
              Outcome::message(QStringLiteral("Could not make a folder link.")));
}

TEST_F(ClipCloudTest, NoAnswerFailsWithTheNetworksSentence)
{
    // Accepts connections and never answers.
    QTcpServer silent;
    ASSERT_TRUE(silent.listen(QHostAddress::LocalHost));
    QList<QTcpSocket *> held;
    QObject::connect(&silent, &QTcpServer::newConnection, [&] {
        while (QTcpSocket *socket = silent.nextPendingConnection())
            held << socket;
    });
    setenv("VANTREL_SERVICE_URL",
           QStringLiteral("http://127.0.0.1:%1").arg(silent.serverPort()).toUtf8().constData(), 1);
    ClipCloud::setTimeouts(300ms, 300ms);
    EXPECT_EQ(outcomeOf(get("/v1/me")), Outcome::other(QStringLiteral("The request timed out.")));
    EXPECT_FALSE(held.isEmpty());

    // Nobody listening: Qt's own sentence.
    const quint16 port = silent.serverPort();
    silent.close();
    qDeleteAll(held);
    const Outcome refused = outcomeOf(get("/v1/me"));
    EXPECT_EQ(refused, Outcome::other(QStringLiteral("Connection refused"))) << port;
}
