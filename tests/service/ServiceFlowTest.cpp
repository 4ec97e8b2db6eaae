// The program's calls against the fixture's real server, as the program makes them.
#include "service/ServiceTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using nlohmann::json;
namespace fs = std::filesystem;

namespace {

json body(const httplib::Result &result)
{
    return result ? json::parse(result->body, nullptr, false) : json();
}

std::string detailOf(const httplib::Result &result)
{
    const json value = body(result);
    return value.is_object() && value.contains("detail") && value["detail"].is_string()
        ? value["detail"].get<std::string>()
        : std::string();
}

httplib::Result approve(httplib::SSLClient &http, const std::string &code, const std::string &email,
                        const std::string &password)
{
    return http.Post("/device",
                     httplib::Params {{"code", code}, {"email", email}, {"password", password}});
}

std::string uploadWithCurl(const ServiceEndpoint &service, const std::string &token,
                           const fs::path &clip, const std::string &name, const fs::path &reply)
{
    const int status =
        curl(service,
             {"-H", "Authorization: Bearer " + token, "-F", "name=" + name, "-F",
              "file=@" + clip.string() + ";type=video/mp4", service.url + "/v1/clips"},
             reply);
    EXPECT_EQ(status, 200) << readFile(reply);
    return json::parse(readFile(reply))["id"].get<std::string>();
}

} // namespace

TEST(ServiceFlowTest, DeviceSignInThroughTheRealForm)
{
    const ServiceEndpoint service = fixtureService();
    const std::string email = addUser(service, "Dana", "dana's password");
    auto http = client(service);

    const auto started = http->Post("/v1/auth/device");
    ASSERT_TRUE(started);
    ASSERT_EQ(started->status, 200);
    const std::string code = body(started)["code"];
    EXPECT_EQ(body(started)["url"], service.url + "/device?code=" + code);

    const std::string path = "/v1/auth/device/" + code;
    EXPECT_EQ(http->Get(path)->status, 204);
    EXPECT_EQ(http->Get(path)->status, 204);

    const auto page = http->Get("/device?code=" + code);
    ASSERT_EQ(page->status, 200);
    for (const char *part :
         {"action=\"/device\"", "name=\"email\"", "name=\"password\"", "name=\"code\""})
        EXPECT_NE(page->body.find(part), std::string::npos) << part;
    EXPECT_NE(page->body.find(code), std::string::npos);

    const auto wrong = approve(*http, code, email, "not the password");
    EXPECT_EQ(wrong->status, 401);
    EXPECT_NE(wrong->body.find("not right"), std::string::npos);
    EXPECT_EQ(http->Get(path)->status, 204) << "a wrong password approves nothing";

    const auto right = approve(*http, code, email, "dana's password");
    EXPECT_EQ(right->status, 200);
    EXPECT_NE(right->body.find("signed in"), std::string::npos);

    const auto granted = http->Get(path);
    ASSERT_EQ(granted->status, 200);
    const std::string token = body(granted)["token"];
    EXPECT_EQ(token.size(), 46u);
    const auto again = http->Get(path);
    EXPECT_EQ(again->status, 410) << "a token is handed out once";
    EXPECT_FALSE(detailOf(again).empty());

    const auto profile = http->Get("/v1/me", bearer(token));
    ASSERT_EQ(profile->status, 200);
    EXPECT_EQ(body(profile)["email"], email);
    EXPECT_EQ(body(profile)["name"], "Dana");

    const auto unknown = http->Get("/v1/auth/device/ZZZZ-ZZZZ");
    EXPECT_EQ(unknown->status, 404);
    EXPECT_FALSE(detailOf(unknown).empty());
    EXPECT_EQ(http->Get("/device?code=ZZZZ-ZZZZ")->status, 404);
}

TEST(ServiceFlowTest, ProfileWithGoodBadAndRevokedTokens)
{
    const ServiceEndpoint service = fixtureService();
    const std::string email = addUser(service, "Eli");
    const std::string token = issueToken(service, email);
    const std::string other = issueToken(service, email);
    auto http = client(service);

    const auto good = http->Get("/v1/me", bearer(token));
    ASSERT_EQ(good->status, 200);
    const json profile = body(good);
    for (const char *key : {"id", "vantrel_code", "name", "email", "avatar_url"})
        EXPECT_TRUE(profile[key].is_string()) << key;
    for (const char *key : {"discord_linked", "google_linked", "google_login", "discord_oauth"})
        EXPECT_TRUE(profile[key].is_boolean()) << key;
    EXPECT_EQ(profile["vantrel_code"].get<std::string>().size(), 6u);

    for (const auto &headers : {httplib::Headers {}, bearer("vt_not-a-real-token"),
                                httplib::Headers {{"Authorization", "Basic abc"}}}) {
        const auto refused = http->Get("/v1/me", headers);
        EXPECT_EQ(refused->status, 401);
        EXPECT_FALSE(detailOf(refused).empty());
    }

    ASSERT_EQ(runCommand(service, {"token", "revoke", "-"}, token + "\n").status, 0);
    EXPECT_EQ(http->Get("/v1/me", bearer(token))->status, 401);
    EXPECT_EQ(http->Get("/v1/me", bearer(other))->status, 200) << "only that token ends";
    EXPECT_NE(runCommand(service, {"token", "revoke", token}).status, 0) << "revoked already";

    ASSERT_EQ(runCommand(service, {"token", "revoke", "--all", email}).status, 0);
    EXPECT_EQ(http->Get("/v1/me", bearer(other))->status, 401);
}

TEST(ServiceFlowTest, UploadServedBackWholeAndInRanges)
{
    const ServiceEndpoint service = fixtureService();
    const std::string token = issueToken(service, addUser(service, "Fay"));
    TempFolder folder;
    const fs::path clip = makeClip(folder.path(), "Clip 2026.mp4", 2, "640x360");
    const std::string original = readFile(clip);

    const std::string id =
        uploadWithCurl(service, token, clip, "Clip 2026", folder.path() / "reply.json");
    const json reply = json::parse(readFile(folder.path() / "reply.json"));
    EXPECT_EQ(reply["url"], service.url + "/c/" + id);
    EXPECT_EQ(reply["name"], "Clip 2026");

    const std::string file = service.url + "/files/" + id + ".mp4";
    const fs::path served = folder.path() / "served.mp4";
    ASSERT_EQ(curl(service, {file}, served), 200);
    EXPECT_EQ(md5(readFile(served)), md5(original));

    const size_t size = original.size();
    struct Case
    {
        std::string range;
        size_t first, length;
    };
    for (const Case &c : {Case {"0-99", 0, 100}, Case {"1000-", 1000, size - 1000},
                          Case {"-500", size - 500, 500}, Case {"100-99999999", 100, size - 100}}) {
        const fs::path part = folder.path() / "part";
        EXPECT_EQ(curl(service, {"-r", c.range, file}, part), 206) << c.range;
        EXPECT_EQ(readFile(part), original.substr(c.first, c.length)) << c.range;
    }
    EXPECT_EQ(curl(service, {"-r", std::to_string(size) + "-", file}, folder.path() / "none"), 416);

    const fs::path headers = folder.path() / "headers";
    curl(service, {"-D", headers.string(), "-r", "0-0", file}, folder.path() / "one");
    EXPECT_NE(readFile(headers).find("Content-Type: video/mp4"), std::string::npos);
    EXPECT_NE(readFile(headers).find("Content-Range: bytes 0-0/" + std::to_string(size)),
              std::string::npos);

    std::string probe;
    {
        const fs::path out = folder.path() / "probe.txt";
        ASSERT_EQ(
            std::system(("ffprobe -v error -show_entries stream=codec_name,width -of csv=p=0 '" +
                         served.string() + "' > '" + out.string() + "'")
                            .c_str()),
            0);
        probe = readFile(out);
    }
    EXPECT_NE(probe.find("h264,640"), std::string::npos) << probe;
    EXPECT_NE(probe.find("aac"), std::string::npos) << probe;

    // The poster is made after the upload's answer.
    ASSERT_TRUE(waitForPoster(service, id));
    const fs::path poster = folder.path() / "poster.jpg";
    ASSERT_EQ(curl(service, {service.url + "/files/" + id + ".jpg"}, poster), 200);
    EXPECT_EQ(readFile(poster).substr(0, 2), "\xFF\xD8") << "a JPEG";

    const fs::path page = folder.path() / "page.html";
    ASSERT_EQ(curl(service, {service.url + "/c/" + id}, page), 200);
    const std::string html = readFile(page);
    for (const std::string &part :
         {std::string("<video"), "src=\"/files/" + id + ".mp4\"",
          "property=\"og:video\" content=\"" + file + "\"",
          "property=\"og:image\" content=\"" + service.url + "/files/" + id + ".jpg\""})
        EXPECT_NE(html.find(part), std::string::npos) << part;
}

TEST(ServiceFlowTest, PacksHoldOnlyTheCallersOwnClips)
{
    const ServiceEndpoint service = fixtureService();
    const std::string mine = issueToken(service, addUser(service, "Gus"));
    const std::string theirs = issueToken(service, addUser(service, "Hal"));
    TempFolder folder;
    const fs::path clip = makeClip(folder.path(), "a.mp4", 1);
    const std::string first =
        uploadWithCurl(service, mine, clip, "first <b>", folder.path() / "r1");
    const std::string second = uploadWithCurl(service, mine, clip, "second", folder.path() / "r2");
    const std::string foreign =
        uploadWithCurl(service, theirs, clip, "foreign", folder.path() / "r3");
    auto http = client(service);
    const auto post = [&](const json &request) {
        return http->Post("/v1/packs", bearer(mine), request.dump(), "application/json");
    };

    const auto refused = post({{"title", "Mixed"}, {"clip_ids", {first, foreign}}});
    EXPECT_EQ(refused->status, 403);
    EXPECT_NE(detailOf(refused).find(foreign), std::string::npos);
    EXPECT_EQ(post({{"title", "Lost"}, {"clip_ids", {first, "nosuchclip"}}})->status, 404);

    const auto made = post({{"title", "Vantrel clips"}, {"clip_ids", {second, first}}});
    ASSERT_EQ(made->status, 200);
    const std::string url = body(made)["url"];
    ASSERT_EQ(url.rfind(service.url + "/p/", 0), 0u) << url;
    const auto page = http->Get(url.substr(service.url.size()));
    ASSERT_EQ(page->status, 200);
    const size_t at2 = page->body.find("/files/" + second + ".mp4");
    const size_t at1 = page->body.find("/files/" + first + ".mp4");
    EXPECT_NE(at1, std::string::npos);
    EXPECT_LT(at2, at1) << "clips in the order given";
    EXPECT_EQ(page->body.find(foreign), std::string::npos);
    EXPECT_NE(page->body.find("first &lt;b&gt;"), std::string::npos) << "names are escaped";

    EXPECT_EQ(post({{"title", "Empty"}, {"clip_ids", json::array()}})->status, 200);
    EXPECT_EQ(http->Post("/v1/packs", "{}", "application/json")->status, 401);
}

TEST(ServiceFlowTest, ReleasesAndSponsorCardsFromTheCommandLine)
{
    // An own server: the fixture's releases and cards are what other tests expect them to be.
    OwnService own;
    const ServiceEndpoint &service = own.endpoint();
    auto http = client(service);
    EXPECT_EQ(http->Get("/v1/version")->status, 404);
    EXPECT_FALSE(detailOf(http->Get("/v1/version")).empty());
    EXPECT_EQ(http->Get("/v1/ads")->body, R"({"slots":[]})");

    TempFolder folder;
    const std::string archive12(300000, 'a');
    writeFile(folder.path() / "a12.tar.gz", archive12);
    writeFile(folder.path() / "a110.tar.gz", std::string(1000, 'b'));
    std::string signature;
    for (int i = 0; i < 64; ++i)
        signature += char(i * 3);
    writeFile(folder.path() / "sig", signature);
    writeFile(folder.path() / "short.sig", signature.substr(0, 40));
    const auto add = [&](const std::string &version, const std::string &archive,
                         const std::string &sig) {
        return runCommand(service,
                          {"release", "add", version, (folder.path() / archive).string(), "--notes",
                           "Notes of " + version, "--signature", (folder.path() / sig).string()});
    };
    ASSERT_EQ(add("1.2", "a12.tar.gz", "sig").status, 0);
    ASSERT_EQ(add("1.1.10", "a110.tar.gz", "sig").status, 0);
    EXPECT_NE(add("1.3", "a12.tar.gz", "short.sig").status, 0);
    EXPECT_NE(add("1.2", "a12.tar.gz", "sig").status, 0) << "a version is published once";
    EXPECT_NE(add("../1.4", "a12.tar.gz", "sig").status, 0);

    const auto version = http->Get("/v1/version");
    ASSERT_EQ(version->status, 200);
    const json latest = body(version);
    EXPECT_EQ(latest["version"], "1.2") << "1.2 is newer than 1.1.10 added after it";
    EXPECT_EQ(latest["notes"], "Notes of 1.2");
    EXPECT_EQ(latest["linux_url"], "/download/Vantrel-1.2-linux-x86_64.tar.gz");
    EXPECT_EQ(latest["linux_sig"].get<std::string>().size(), 88u);
    const auto resumed =
        http->Get(latest["linux_url"].get<std::string>(), {{"Range", "bytes=299990-"}});
    EXPECT_EQ(resumed->status, 206);
    EXPECT_EQ(resumed->body, archive12.substr(299990));

    const std::string cards =
        R"({"slots": [{"id": "a", "name": "Nimbus", "line": "Fast builds"}]})";
    writeFile(folder.path() / "ads.json", cards);
    ASSERT_EQ(runCommand(service, {"ads", "set", (folder.path() / "ads.json").string()}).status, 0);
    EXPECT_EQ(http->Get("/v1/ads")->body, cards) << "the operator's file as it is";
    for (const char *bad : {"{\"slots\": {}}", "[1]", "{\"slots\": [", ""}) {
        writeFile(folder.path() / "bad.json", bad);
        const CommandResult result =
            runCommand(service, {"ads", "set", (folder.path() / "bad.json").string()});
        EXPECT_EQ(result.status, 1) << bad;
        EXPECT_FALSE(result.errors.empty());
    }
    EXPECT_EQ(http->Get("/v1/ads")->body, cards) << "a refused file changes nothing";
}

TEST(ServiceFlowTest, AccountPageSignsInListsAndSignsOutEverywhere)
{
    const ServiceEndpoint service = fixtureService();
    const std::string email = addUser(service, "Ora", "ora's password");
    const std::string token = issueToken(service, email);
    TempFolder folder;
    const std::string id = uploadWithCurl(service, token, makeClip(folder.path(), "o.mp4", 1),
                                          "Ora's clip", folder.path() / "reply");
    auto http = client(service);

    const auto form = http->Get("/account");
    ASSERT_EQ(form->status, 200);
    EXPECT_NE(form->body.find("name=\"password\""), std::string::npos);
    EXPECT_EQ(
        http->Post("/account", httplib::Params {{"email", email}, {"password", "wrong"}})->status,
        401);

    const auto signedIn =
        http->Post("/account", httplib::Params {{"email", email}, {"password", "ora's password"}});
    ASSERT_EQ(signedIn->status, 303);
    const std::string setCookie = signedIn->get_header_value("Set-Cookie");
    for (const char *attribute : {"HttpOnly", "SameSite=Strict", "Secure"})
        EXPECT_NE(setCookie.find(attribute), std::string::npos) << attribute;
    const httplib::Headers cookie {{"Cookie", setCookie.substr(0, setCookie.find(';'))}};

    const auto page = http->Get("/account", cookie);
    ASSERT_EQ(page->status, 200);
    EXPECT_NE(page->body.find("/c/" + id), std::string::npos);
    EXPECT_NE(page->body.find("Ora&#39;s clip"), std::string::npos);

    const auto out = http->Post("/account/sign-out", cookie, "everywhere=1",
                                "application/x-www-form-urlencoded");
    EXPECT_EQ(out->status, 200);
    EXPECT_EQ(http->Get("/account", cookie)->body.find("/c/" + id), std::string::npos);
    EXPECT_EQ(http->Get("/v1/me", bearer(token))->status, 401) << "the program is signed out too";
}
