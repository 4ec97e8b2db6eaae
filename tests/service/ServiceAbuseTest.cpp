// What an attacker tries short of a flood, against servers of the tests' own: reading secrets
// from the log or the data folder, forging the framing of a request, guessing passwords and
// sign-in codes (behind a trusted proxy too), and what the owner of a shared clip does to take
// it down.
#include "service/AttackTools.h"
#include "service/ServiceTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/stat.h>

using nlohmann::json;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

// The octal mode of a file, such as 0700.
unsigned modeOf(const fs::path &path)
{
    struct stat info
    {
    };
    return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

httplib::Headers forwardedFor(const std::string &client)
{
    return {{"X-Forwarded-For", client}};
}

httplib::Result signIn(httplib::SSLClient &http, const std::string &email,
                       const std::string &password, const httplib::Headers &headers = {})
{
    return http.Post("/account", headers, "email=" + email + "&password=" + password,
                     "application/x-www-form-urlencoded");
}

std::string uploadClip(httplib::SSLClient &http, const std::string &token, const std::string &clip,
                       const std::string &name)
{
    httplib::MultipartFormDataItems form {{"name", name, "", ""},
                                          {"file", clip, "c.mp4", "video/mp4"}};
    const auto result = http.Post("/v1/clips", bearer(token), form);
    if (!result || result->status != 200)
        throw std::runtime_error("upload failed");
    return json::parse(result->body)["id"];
}

// One request on a connection of its own, answered with its status.
int rawStatus(int port, const std::string &request)
{
    RawConnection connection(port, RawConnection::Start::tls);
    connection.send(request);
    return connection.answerStatus(3s);
}

} // namespace

TEST(ServiceLeakTest, TheLogAndTheDataFolderGiveNothingAway)
{
    OwnService own;
    const ServiceEndpoint &service = own.endpoint();
    const std::string email = addUser(service, "Lee", "lee's password");
    auto http = client(service);

    // A sign-in from start to token, with the code in every place a client may put it.
    const std::string code = json::parse(http->Post("/v1/auth/device")->body)["code"];
    EXPECT_EQ(http->Get("/v1/auth/device/" + code)->status, 204);
    EXPECT_EQ(http->Get("/device?code=" + code)->status, 200);
    EXPECT_EQ(http->Post("/device",
                         httplib::Params {
                             {"code", code}, {"email", email}, {"password", "lee's password"}})
                  ->status,
              200);
    const std::string token = json::parse(http->Get("/v1/auth/device/" + code)->body)["token"];
    EXPECT_EQ(http->Get("/v1/me", bearer(token))->status, 200);
    EXPECT_EQ(http->Get("/v1/auth/device/" + token)->status, 404) << "a token sent as a code";
    EXPECT_EQ(rawStatus(service.port, "PUT /device/" + code + " HTTP/1.1\r\nHost: x\r\n\r\n"), 411);

    const std::string log = readFile(own.logPath());
    EXPECT_NE(log.find("GET /v1/auth/device/[hidden] 204"), std::string::npos) << log;
    for (const std::string &secret : {code, token, std::string("lee's password")})
        EXPECT_EQ(log.find(secret), std::string::npos) << secret << " is in the log:\n" << log;

    // The folder and what is in it are the service's account's alone; a folder left looser by
    // an older version is tightened at the next start.
    TempFolder folder;
    const std::string id =
        uploadClip(*http, token, readFile(makeClip(folder.path(), "c.mp4", 1)), "mine");
    // (On shared stores the data folder holds only the pending uploads.)
    const fs::path data = service.data;
    std::vector<std::pair<fs::path, unsigned>> modes {{data, 0700u}, {data / "tmp", 0700u}};
    if (!service.sharedStores())
        modes.insert(modes.end(),
                     {{data / "clips", 0700u},
                      {data / "records.sqlite3", 0600u},
                      {data / "clips" / (id + ".mp4"), 0600u}});
    for (const auto &[path, mode] : modes)
        EXPECT_EQ(modeOf(path), mode) << path;
    own.kill9();
    for (const auto &[path, mode] : modes)
        fs::permissions(path, fs::perms(mode | 0055));
    own.start();
    for (const auto &[path, mode] : modes)
        EXPECT_EQ(modeOf(path), mode) << path << " is tightened again";

    // Over TLS every answer tells the browser to stay on TLS, the front door's own included.
    auto again = client(service);
    EXPECT_EQ(again->Get("/v1/ads")->get_header_value("Strict-Transport-Security"),
              "max-age=31536000");
    RawConnection refused(service.port, RawConnection::Start::tls);
    refused.send("PUT / HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_NE(refused.receive(3s).find("Strict-Transport-Security: max-age=31536000"),
              std::string::npos);
}

TEST(ServiceForgeryTest, FramingThatCouldBeReadTwoWaysIsRefusedBeforeTheBody)
{
    OwnService own({"--max-upload", "1M"});
    const ServiceEndpoint &service = own.endpoint();
    const int port = service.port;
    const std::string token = issueToken(service, addUser(service, "Fay"));
    const std::string auth = "Authorization: Bearer " + token + "\r\n";

    struct Case
    {
        const char *what;
        std::string request;
        int status;
    };
    const std::vector<Case> cases {
        {"two different lengths",
         "POST /v1/packs HTTP/1.1\r\nHost: x\r\n" + auth +
             "Content-Length: 2\r\nContent-Length: 40\r\n\r\n{}",
         400},
        {"a length and chunks",
         "POST /v1/packs HTTP/1.1\r\nHost: x\r\n" + auth +
             "Content-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n0\r\n\r\n",
         411},
        {"chunks alone",
         "POST /v1/auth/device HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
         411},
        {"no length", "POST /v1/auth/device HTTP/1.1\r\nHost: x\r\n\r\n", 411},
        {"a folded header", "GET /v1/ads HTTP/1.1\r\nHost: x\r\nX-A: a\r\n b\r\n\r\n", 400},
        {"a bare line feed", "GET /v1/ads HTTP/1.1\r\nHost: x\nX-A: a\r\n\r\n", 400},
        {"a signed length",
         "POST /v1/auth/device HTTP/1.1\r\nHost: x\r\nContent-Length: +0\r\n\r\n", 400},
        {"HTTP/2's preface", "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", 505},
        {"the same length twice",
         "POST /v1/auth/device HTTP/1.1\r\nHost: x\r\nContent-Length: 2, 2\r\n\r\n{}", 200},
    };
    for (const Case &c : cases)
        EXPECT_EQ(rawStatus(port, c.request), c.status) << c.what;

    // An upload over the limit is refused from its head, before a byte of its body comes.
    {
        RawConnection upload(port, RawConnection::Start::tls);
        upload.send("POST /v1/clips HTTP/1.1\r\nHost: x\r\n" + auth +
                    "Content-Type: multipart/form-data; boundary=x\r\n"
                    "Content-Length: 50000000\r\n\r\n");
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(upload.answerStatus(3s), 413);
        reportFigure("time to refuse a 50 MB upload over a 1 MiB limit",
                     double(std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::steady_clock::now() - start)
                                .count()),
                     "ms");
        EXPECT_NE(upload.receive(2s).find("upload limit of 1 MiB"), std::string::npos);
    }
    // A client that asks first hears 401 or 100 before it sends the body.
    const std::string announced = "POST /v1/clips HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\n"
                                  "Content-Type: multipart/form-data; boundary=x\r\n"
                                  "Content-Length: 500000\r\n";
    EXPECT_EQ(rawStatus(port, announced + "Authorization: Bearer vt_wrong\r\n\r\n"), 401);
    EXPECT_EQ(rawStatus(port, announced + auth + "\r\n"), 100);
    // Small bodies that ask first are told to go on by the front door.
    const std::string pack = R"({"title": "t", "clip_ids": []})";
    RawConnection small(port, RawConnection::Start::tls);
    small.send("POST /v1/packs HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\n" + auth +
               "Content-Type: application/json\r\nConnection: close\r\nContent-Length: " +
               std::to_string(pack.size()) + "\r\n\r\n");
    EXPECT_EQ(small.answerStatus(3s), 100);
    small.send(pack);
    EXPECT_NE(small.receive(3s).find("HTTP/1.1 200 OK"), std::string::npos);
}

TEST(ServiceForgeryTest, GuessesCountPerClientBehindTheProxyPerAccountAndOnTheDevicePage)
{
    OwnService own({"--trusted-proxy", "127.0.0.1"});
    const ServiceEndpoint &service = own.endpoint();
    const std::string email = addUser(service, "Gil", "gil's password");
    auto http = client(service);

    // Behind the proxy one client's ten wrong passwords hold back that client, not the next.
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(signIn(*http, email, "wrong", forwardedFor("10.0.0.1"))->status, 401) << i;
    // A slow machine earns a try back every six seconds while the passwords are checked: spend
    // those too, so that the client is held back now whatever the machine's speed.
    for (int extra = 0;
         extra < 5 && signIn(*http, email, "wrong", forwardedFor("10.0.0.1"))->status == 401;)
        ++extra;
    // The proxy's own entry counts, not what the client wrote before it. (A refusal checks no
    // password, so nothing is earned back between these.)
    EXPECT_EQ(signIn(*http, email, "wrong", forwardedFor("10.0.0.2, 10.0.0.1"))->status, 429);
    EXPECT_EQ(signIn(*http, email, "gil's password", forwardedFor("10.0.0.1"))->status, 429);
    EXPECT_EQ(signIn(*http, email, "gil's password", forwardedFor("10.0.0.2"))->status, 303);

    // One account guessed at from many addresses is held back as a whole: twenty tries a
    // minute (and one more for each three seconds the tries took), then the right password
    // waits too.
    const std::string other = addUser(service, "Hal", "hal's password");
    const auto guessing = std::chrono::steady_clock::now();
    int tries = 0;
    while (tries < 60 &&
           signIn(*http, other, "wrong", forwardedFor("10.1.0." + std::to_string(tries)))->status ==
               401)
        ++tries;
    const auto took = std::chrono::duration_cast<std::chrono::seconds>(
        std::chrono::steady_clock::now() - guessing);
    EXPECT_GE(tries, 20);
    EXPECT_LE(tries, 21 + took.count() / 3);
    EXPECT_EQ(signIn(*http, other, "hal's password", forwardedFor("10.1.0.99"))->status, 429);

    // Six programs signing in at once behind the proxy each have their own rate.
    int limited = 0;
    for (int program = 0; program < 6; ++program) {
        const httplib::Headers from = forwardedFor("10.3.0." + std::to_string(program));
        const auto started = http->Post("/v1/auth/device", from, "", "application/json");
        ASSERT_EQ(started->status, 200);
        const std::string code = json::parse(started->body)["code"];
        for (int poll = 0; poll < 15; ++poll)
            limited += http->Get("/v1/auth/device/" + code, from)->status == 429;
    }
    EXPECT_EQ(limited, 0);

    // Guessing codes on the device page is held to the poll's rate. The guesses come from
    // another address than the proxy's, pipelined a hundred to a connection, each naming
    // another client in X-Forwarded-For: from anyone but the proxy that is the client's own say,
    // and ignored.
    const auto start = std::chrono::steady_clock::now();
    int answered = 0;
    int refused = 0;
    for (int round = 0; round < 3; ++round) {
        RawConnection connection(service.port, RawConnection::Start::tls, "127.0.6.1");
        std::string requests;
        for (int i = 0; i < 100; ++i) {
            char guess[16];
            std::snprintf(guess, sizeof guess, "ZZZZ-%04d", round * 100 + i);
            requests += std::string("GET /device?code=") + guess +
                " HTTP/1.1\r\nHost: x\r\nX-Forwarded-For: 10.4." + std::to_string(round) + "." +
                std::to_string(i) + "\r\n\r\n";
        }
        connection.send(requests);
        const std::string answers = connection.receive(20s);
        for (size_t at = answers.find("HTTP/1.1 "); at != std::string::npos;
             at = answers.find("HTTP/1.1 ", at + 1)) {
            answered += answers.compare(at + 9, 3, "404") == 0;
            refused += answers.compare(at + 9, 3, "429") == 0;
        }
    }
    reportFigure("device-page guesses answered of 300", answered, "");
    reportFigure("time for 300 device-page guesses",
                 double(std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::steady_clock::now() - start)
                            .count()),
                 "ms");
    // Sixty at once, then one a second.
    const auto spent =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start);
    EXPECT_GE(answered, 60);
    EXPECT_LE(answered, 61 + spent.count());
    EXPECT_EQ(answered + refused, 300);
    EXPECT_EQ(http->Get("/device?code=ZZZZ-ZZZZ", forwardedFor("10.4.0.2"))->status, 404);
}

TEST(ServiceTakedownTest, OwnerAndOperatorDeleteASharedClipForGood)
{
    OwnService own;
    const ServiceEndpoint &service = own.endpoint();
    const std::string email = addUser(service, "Ida", "ida's password");
    const std::string token = issueToken(service, email);
    const std::string strangerToken = issueToken(service, addUser(service, "Ned"));
    TempFolder folder;
    const std::string clip = readFile(makeClip(folder.path(), "c.mp4", 1));
    auto http = client(service);
    const std::string first = uploadClip(*http, token, clip, "first");
    const std::string second = uploadClip(*http, token, clip, "second");
    const std::string third = uploadClip(*http, token, clip, "third");
    const auto pack = http->Post("/v1/packs", bearer(token),
                                 json({{"title", "t"}, {"clip_ids", {first, second}}}).dump(),
                                 "application/json");
    ASSERT_EQ(pack->status, 200);
    const std::string packPath =
        json::parse(pack->body)["url"].get<std::string>().substr(service.url.size());

    // The program: only the owner, with a token, and a stranger learns nothing about the id.
    const std::string path = "/v1/clips/" + first;
    EXPECT_EQ(http->Delete(path)->status, 401);
    const auto stranger = http->Delete(path, bearer(strangerToken));
    EXPECT_EQ(stranger->status, 404);
    EXPECT_EQ(http->Delete("/v1/clips/nosuchclip", bearer(token))->status, 404);
    EXPECT_EQ(http->Get("/c/" + first)->status, 200);
    const auto deleted = http->Delete(path, bearer(token));
    EXPECT_EQ(deleted->status, 204);
    EXPECT_TRUE(deleted->body.empty());
    EXPECT_EQ(http->Delete(path, bearer(token))->status, 404) << "once";
    EXPECT_EQ(http->Get("/c/" + first)->status, 410);
    EXPECT_EQ(http->Get("/files/" + first + ".mp4")->status, 410);
    EXPECT_EQ(http->Get("/files/" + first + ".jpg")->status, 410);
    EXPECT_FALSE(storedExists(service, "clips", first + ".mp4"));
    EXPECT_FALSE(storedExists(service, "posters", first + ".jpg"));
    const auto folderPage = http->Get(packPath);
    EXPECT_EQ(folderPage->body.find(first), std::string::npos);
    EXPECT_NE(folderPage->body.find(second), std::string::npos);

    // The account page: a button, a question, then the clip is gone.
    const auto signedIn = signIn(*http, email, "ida's password");
    ASSERT_EQ(signedIn->status, 303);
    const std::string setCookie = signedIn->get_header_value("Set-Cookie");
    const httplib::Headers cookie {{"Cookie", setCookie.substr(0, setCookie.find(';'))}};
    const std::string action = "/account/clips/" + second + "/delete";
    const auto account = http->Get("/account", cookie);
    EXPECT_NE(account->body.find("action=\"" + action + "\""), std::string::npos);
    const auto question = http->Post(action, cookie, "", "application/x-www-form-urlencoded");
    EXPECT_EQ(question->status, 200);
    EXPECT_NE(question->body.find("Delete for good"), std::string::npos);
    EXPECT_EQ(http->Get("/c/" + second)->status, 200) << "asking deletes nothing";
    EXPECT_EQ(http->Post(action, "confirm=1", "application/x-www-form-urlencoded")->status, 303)
        << "not without the session";
    httplib::Headers elsewhere = cookie;
    elsewhere.emplace("Origin", "https://elsewhere.example");
    EXPECT_EQ(
        http->Post(action, elsewhere, "confirm=1", "application/x-www-form-urlencoded")->status,
        303);
    EXPECT_EQ(http->Get("/c/" + second)->status, 200) << "nor from another site";
    const auto done = http->Post(action, cookie, "confirm=1", "application/x-www-form-urlencoded");
    EXPECT_EQ(done->status, 200);
    EXPECT_NE(done->body.find("is deleted"), std::string::npos);
    EXPECT_EQ(done->body.find("/c/" + second), std::string::npos);
    EXPECT_EQ(http->Get("/c/" + second)->status, 410);

    // The operator.
    const CommandResult removed = runCommand(service, {"clip", "delete", third});
    EXPECT_EQ(removed.status, 0) << removed.errors;
    EXPECT_NE(removed.errors.find(email), std::string::npos);
    EXPECT_EQ(http->Get("/c/" + third)->status, 410);
    EXPECT_EQ(runCommand(service, {"clip", "delete", third}).status, 1);
    EXPECT_EQ(runCommand(service, {"clip", "delete", "nosuchclip"}).status, 1);
    EXPECT_EQ(countStored(service, "clips"), 0);
    EXPECT_EQ(countStored(service, "posters"), 0);

    // A restart keeps the links answering that the clips were deleted.
    own.kill9();
    own.start();
    EXPECT_EQ(client(service)->Get("/c/" + first)->status, 410);
}
