// Bad input, limits and crashes against servers of the tests' own: each refusal answers with a
// detail and leaves nothing behind in the data folder.
#include "service/ServiceTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <thread>

using nlohmann::json;
namespace fs = std::filesystem;

namespace {

std::string detailOf(const std::string &text)
{
    const json value = json::parse(text, nullptr, false);
    return value.is_object() && value.contains("detail") && value["detail"].is_string()
        ? value["detail"].get<std::string>()
        : std::string();
}

// The places a stored or half-stored upload would show up in.
int storedFiles(const ServiceEndpoint &service)
{
    return countStored(service, "tmp") + countStored(service, "clips") +
        countStored(service, "posters");
}

std::string multipart(const std::string &boundary, const std::string &name,
                      const std::string &fileName, const std::string &type,
                      const std::string &content, bool close = true)
{
    std::string body = "--" + boundary +
        "\r\nContent-Disposition: form-data; name=\"name\"\r\n\r\n" + name + "\r\n--" + boundary +
        "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" + fileName +
        "\"\r\nContent-Type: " + type + "\r\n\r\n" + content;
    if (close)
        body += "\r\n--" + boundary + "--\r\n";
    return body;
}

} // namespace

TEST(ServiceSafetyTest, BadInputIsRefusedWithADetailAndLeavesNothingBehind)
{
    OwnService own({"--max-upload", "1M"});
    const ServiceEndpoint &service = own.endpoint();
    const std::string token = issueToken(service, addUser(service, "Ivy"));
    TempFolder folder;
    const std::string clip = readFile(makeClip(folder.path(), "ok.mp4", 1));
    // Its size is refused before anything looks at what it holds.
    const std::string big = clip + std::string(size_t(1) << 20, 'x');
    auto http = client(service);
    const std::string boundary = "Boundary-3F2A";
    const std::string formType = "multipart/form-data; boundary=" + boundary;

    struct Case
    {
        const char *what;
        std::string body;
        std::string contentType;
        int status;
    };
    const std::vector<Case> uploads {
        {"truncated form", multipart(boundary, "a", "a.mp4", "video/mp4", clip, false), formType,
         400},
        {"not an MP4", multipart(boundary, "a", "a.mp4", "video/mp4", "just some text"), formType,
         415},
        {"an ftyp box and junk",
         multipart(boundary, "a", "a.mp4", "video/mp4",
                   clip.substr(0, 40) + std::string(5000, 'x')),
         formType, 415},
        {"oversized", multipart(boundary, "a", "big.mp4", "video/mp4", big), formType, 413},
        {"a name with ../", multipart(boundary, "a", "../../etc/passwd.mp4", "video/mp4", clip),
         formType, 400},
        {"a name with a folder", multipart(boundary, "a", "clips/a.mp4", "video/mp4", clip),
         formType, 400},
        {"a 10,000-character name",
         multipart(boundary, std::string(10000, 'n'), "a.mp4", "video/mp4", clip), formType, 400},
        {"not video/mp4", multipart(boundary, "a", "a.png", "image/png", clip), formType, 415},
        {"an unknown part",
         "--" + boundary + "\r\nContent-Disposition: form-data; name=\"owner\"\r\n\r\nme\r\n" +
             multipart(boundary, "a", "a.mp4", "video/mp4", clip).substr(boundary.size() + 4),
         formType, 400},
        {"no file part",
         "--" + boundary + "\r\nContent-Disposition: form-data; name=\"name\"\r\n\r\nx\r\n--" +
             boundary + "--\r\n",
         formType, 400},
        {"not a form", clip, "video/mp4", 400},
    };
    for (const Case &c : uploads) {
        const auto result = http->Post("/v1/clips", bearer(token), c.body, c.contentType.c_str());
        ASSERT_TRUE(result) << c.what;
        EXPECT_EQ(result->status, c.status) << c.what << ": " << result->body;
        EXPECT_FALSE(detailOf(result->body).empty()) << c.what;
        EXPECT_EQ(storedFiles(service), 0) << c.what;
    }
    const auto anonymous = http->Post(
        "/v1/clips", multipart(boundary, "a", "a.mp4", "video/mp4", clip), formType.c_str());
    EXPECT_EQ(anonymous->status, 401);

    // A client that hangs up halfway through its upload.
    {
        const std::string body = multipart(boundary, "a", "a.mp4", "video/mp4", clip);
        auto hangingUp = client(service);
        hangingUp->Post(
            "/v1/clips", bearer(token), body.size(),
            [&](size_t offset, size_t, httplib::DataSink &sink) {
                if (offset >= body.size() / 2)
                    return false;
                return sink.write(body.data(), body.size() / 2);
            },
            formType.c_str());
        EXPECT_TRUE(waitFor([&] { return storedFiles(service) == 0; }));
    }

    const std::vector<std::pair<std::string, std::string>> packs {
        {"malformed JSON", R"({"title": "a", "clip_ids": [)"},
        {"not an object", R"(["a"])"},
        {"an unknown field", R"({"title": "a", "clip_ids": [], "public": true})"},
        {"a title that is a number", R"({"title": 5, "clip_ids": []})"},
        {"ids that are not strings", R"({"title": "a", "clip_ids": [1]})"},
        {"a 10,000-character title",
         json({{"title", std::string(10000, 't')}, {"clip_ids", json::array()}}).dump()},
        {"not UTF-8", "{\"title\": \"\xff\xfe\", \"clip_ids\": []}"},
    };
    for (const auto &[what, request] : packs) {
        const auto result = http->Post("/v1/packs", bearer(token), request, "application/json");
        ASSERT_TRUE(result) << what;
        EXPECT_EQ(result->status, 400) << what << ": " << result->body;
        EXPECT_FALSE(detailOf(result->body).empty()) << what;
    }
    const auto huge =
        http->Post("/v1/packs", bearer(token), std::string(200000, ' '), "application/json");
    EXPECT_EQ(huge->status, 413);

    // After all that, the service still takes a good clip.
    const auto good = http->Post("/v1/clips", bearer(token),
                                 multipart(boundary, "Good one", "good.mp4", "video/mp4", clip),
                                 formType.c_str());
    ASSERT_EQ(good->status, 200) << good->body;
    EXPECT_EQ(json::parse(good->body)["name"], "Good one");
    EXPECT_TRUE(waitForPoster(service, json::parse(good->body)["id"]));
    EXPECT_EQ(countStored(service, "clips"), 1);
    EXPECT_EQ(countStored(service, "tmp"), 0);
}

TEST(ServiceSafetyTest, RatesAreLimitedPerAddressAndPerToken)
{
    OwnService own({"--poll-rate", "5", "--token-rate", "8"});
    const ServiceEndpoint &service = own.endpoint();
    const std::string email = addUser(service, "Jo");
    const std::string token = issueToken(service, email);
    auto http = client(service);

    const std::string code = json::parse(http->Post("/v1/auth/device")->body)["code"];
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(http->Get("/v1/auth/device/" + code)->status, 204) << i;
    const auto limited = http->Get("/v1/auth/device/" + code);
    EXPECT_EQ(limited->status, 429);
    EXPECT_FALSE(detailOf(limited->body).empty());
    EXPECT_TRUE(limited->has_header("Retry-After"));

    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(http->Get("/v1/me", bearer(token))->status, 200) << i;
    EXPECT_EQ(http->Get("/v1/me", bearer(token))->status, 429);
    EXPECT_EQ(http->Get("/v1/me", bearer(issueToken(service, email)))->status, 200)
        << "each token has a rate of its own";
}

TEST(ServiceSafetyTest, CodesExpire)
{
    // Times are whole seconds: a 3 s life leaves at least 2 s for the first poll to see it
    // pending, however busy the machine. It is polled faster than a program would, so the poll
    // limit is lifted.
    OwnService own({"--code-lifetime", "3", "--poll-rate", "100000"});
    const ServiceEndpoint &service = own.endpoint();
    const std::string email = addUser(service, "Kit");
    auto http = client(service);
    const std::string code = json::parse(http->Post("/v1/auth/device")->body)["code"];
    EXPECT_EQ(http->Get("/v1/auth/device/" + code)->status, 204);
    ASSERT_TRUE(waitFor([&] { return http->Get("/v1/auth/device/" + code)->status == 410; },
                        std::chrono::seconds(8)));
    EXPECT_NE(detailOf(http->Get("/v1/auth/device/" + code)->body).find("expired"),
              std::string::npos);
    const auto late = http->Post(
        "/device",
        httplib::Params {{"code", code}, {"email", email}, {"password", "correct horse"}});
    EXPECT_EQ(late->status, 410);
    EXPECT_EQ(http->Get("/v1/auth/device/" + code)->status, 410)
        << "a late approval grants nothing";
}

TEST(ServiceSafetyTest, KillDuringAnUploadThenRestartLeavesTheStoreConsistent)
{
    // On shared stores a file without a record is left alone for a while (another server may
    // be about to record it); here, not at all.
    OwnService own({"--orphan-grace", "0"});
    const ServiceEndpoint &service = own.endpoint();
    const std::string token = issueToken(service, addUser(service, "Lou"));
    TempFolder folder;
    const std::string clip = readFile(makeClip(folder.path(), "k.mp4", 2));
    const std::string boundary = "Boundary-KILL";
    const std::string formType = "multipart/form-data; boundary=" + boundary;
    auto http = client(service);
    const auto upload = [&](const std::string &name) {
        const auto result =
            http->Post("/v1/clips", bearer(token),
                       multipart(boundary, name, "k.mp4", "video/mp4", clip), formType.c_str());
        return json::parse(result->body)["id"].get<std::string>();
    };
    const std::string kept = upload("kept");
    const std::string lost = upload("file lost");
    ASSERT_TRUE(waitForPoster(service, kept));
    ASSERT_TRUE(waitForPoster(service, lost));
    // A record whose file went missing, and files whose records never came: what a crash
    // between the steps of an upload, or a careless operator, leaves.
    removeStored(service, "clips", lost + ".mp4");
    putStored(service, "clips", "strayfile2345.mp4", clip);
    putStored(service, "posters", "strayfile2345.jpg", "jpeg");

    // An upload that trickles in, killed while its bytes are landing in the data folder. (Its
    // body is larger than the front door gathers whole, so that it lands as it comes.)
    std::atomic<bool> sent {false};
    std::thread slow([&] {
        const std::string body = multipart(boundary, "slow", "s.mp4", "video/mp4",
                                           clip + std::string(256 * 1024, '\0'));
        auto trickle = client(service);
        trickle->Post(
            "/v1/clips", bearer(token), body.size(),
            [&](size_t offset, size_t length, httplib::DataSink &sink) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                sent = true;
                return sink.write(body.data() + offset, std::min<size_t>(length, 4096));
            },
            formType.c_str());
    });
    const bool landing = waitFor([&] { return countStored(service, "tmp") > 0; });
    own.kill9();
    slow.join();
    ASSERT_TRUE(landing);
    EXPECT_GT(countStored(service, "tmp"), 0);

    own.start();
    EXPECT_EQ(countStored(service, "tmp"), 0);
    EXPECT_EQ(countStored(service, "clips"), 1);
    EXPECT_EQ(countStored(service, "posters"), 1);
    auto after = client(service);
    EXPECT_EQ(after->Get("/c/" + kept)->status, 200);
    EXPECT_EQ(after->Get("/files/" + kept + ".mp4")->body, clip);
    EXPECT_EQ(after->Get("/c/" + lost)->status, 404);
    EXPECT_EQ(after->Get("/files/strayfile2345.mp4")->status, 404);
    const auto pack =
        after->Post("/v1/packs", bearer(token),
                    json({{"title", "t"}, {"clip_ids", {kept, lost}}}).dump(), "application/json");
    EXPECT_EQ(pack->status, 404) << "the lost clip's record is gone too";
}
