// The service as several processes on shared stores (PostgreSQL and S3, the "service_pair"
// fixture's servers): a clip one process takes another serves, a process killed in the middle
// of uploads leaves no clip without its object, and an installation on SQLite and a folder moves
// to the shared stores whole.
#include "service/ServiceTestSupport.h"

#include "support/ChildProcess.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <random>
#include <set>
#include <thread>

using nlohmann::json;
namespace fs = std::filesystem;

namespace {

std::string uploadBody(const std::string &boundary, const std::string &name,
                       const std::string &clip)
{
    return "--" + boundary + "\r\nContent-Disposition: form-data; name=\"name\"\r\n\r\n" + name +
        "\r\n--" + boundary +
        "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"c.mp4\"\r\n"
        "Content-Type: video/mp4\r\n\r\n" +
        clip + "\r\n--" + boundary + "--\r\n";
}

std::string upload(const ServiceEndpoint &service, const std::string &token,
                   const std::string &clip, const std::string &name)
{
    const auto result =
        client(service)->Post("/v1/clips", bearer(token), uploadBody("B0undary", name, clip),
                              "multipart/form-data; boundary=B0undary");
    if (!result || result->status != 200)
        return {};
    return json::parse(result->body)["id"];
}

// A clip the check takes (a real MP4) made `megabytes` long with bytes after its end, so that it
// goes to the store in parts.
std::string largeClip(const fs::path &folder, int megabytes)
{
    std::string clip = readFile(makeClip(folder, "base.mp4", 1));
    std::mt19937 random {7};
    std::string tail(size_t(megabytes) << 20, '\0');
    for (char &c : tail)
        c = char(random());
    return clip + tail;
}

} // namespace

TEST(ServiceScaleTest, TwoProcessesOnSharedStoresAreOneService)
{
    ASSERT_TRUE(onSharedStores()) << "runs against the service_pair fixture's stores";
    OwnService first;
    OwnService second(first, {});
    const ServiceEndpoint &a = first.endpoint();
    const ServiceEndpoint &b = second.endpoint();
    const std::string token = issueToken(a, addUser(a, "Pia"));

    // An upload through one, a download with Range through the other.
    TempFolder folder;
    const std::string clip = largeClip(folder.path(), 20);
    const std::string id = upload(a, token, clip, "shared");
    ASSERT_FALSE(id.empty());
    auto reader = client(b);
    const auto whole = reader->Get("/files/" + id + ".mp4");
    ASSERT_EQ(whole->status, 200);
    EXPECT_EQ(md5(whole->body), md5(clip));
    const size_t from = 17 << 20;
    const auto part = reader->Get(
        "/files/" + id + ".mp4",
        {{"Range", "bytes=" + std::to_string(from) + "-" + std::to_string(from + 99999)}});
    ASSERT_EQ(part->status, 206);
    EXPECT_EQ(part->body, clip.substr(from, 100000));
    EXPECT_TRUE(waitForPoster(b, id)) << "made by the first, served by the second";
    EXPECT_NE(reader->Get("/c/" + id)->body.find("/files/" + id + ".jpg"), std::string::npos);

    // Taken down through one: gone through the other too.
    EXPECT_EQ(client(b)->Delete("/v1/clips/" + id, bearer(token))->status, 204);
    EXPECT_EQ(client(a)->Get("/c/" + id)->status, 410);
    EXPECT_EQ(client(a)->Get("/files/" + id + ".mp4")->status, 410);
    EXPECT_FALSE(storedExists(a, "clips", id + ".mp4"));
}

TEST(ServiceScaleTest, KillDuringUploadsLeavesNoListedClipWithoutItsObject)
{
    ASSERT_TRUE(onSharedStores()) << "runs against the service_pair fixture's stores";
    OwnService writer({"--orphan-grace", "0"});
    OwnService reader(writer, {});
    const ServiceEndpoint &service = writer.endpoint();
    const std::string token = issueToken(service, addUser(service, "Kai"));
    TempFolder folder;
    const fs::path clip = folder.path() / "large.mp4";
    writeFile(clip, largeClip(folder.path(), 40));
    const std::string original = readFile(clip);

    std::mt19937 random {11};
    for (int round = 0; round < 3; ++round) {
        // Three uploads at once with curl, the server killed at some moment of their way:
        // while the bytes arrive, while they go to the store in parts, or after.
        std::vector<std::unique_ptr<ChildProcess>> uploads;
        for (int i = 0; i < 3; ++i)
            uploads.push_back(std::make_unique<ChildProcess>(std::vector<std::string> {
                "curl", "-s", "-o", "/dev/null", "--cacert", service.ca, "-H",
                "Authorization: Bearer " + token, "-F", "name=round", "-F",
                "file=@" + clip.string() + ";type=video/mp4", service.url + "/v1/clips"}));
        std::this_thread::sleep_for(std::chrono::milliseconds(200 + random() % 1500));
        writer.kill9();
        uploads.clear();

        // Every clip the records list has its whole object, seen from the other process.
        const std::string ids = databaseValue(service, "SELECT string_agg(id, ' ') FROM clips");
        std::istringstream list(ids);
        for (std::string id; list >> id;) {
            const auto served = client(reader.endpoint())->Get("/files/" + id + ".mp4");
            ASSERT_TRUE(served);
            EXPECT_EQ(served->status, 200) << id;
            EXPECT_EQ(served->body.size(), original.size()) << id;
        }
        writer.start();
    }
    // The last start swept what the kills left: objects without a record, unfinished parts.
    const int clips = std::stoi(databaseValue(service, "SELECT count(*) FROM clips"));
    EXPECT_EQ(countStored(service, "clips"), clips);
    EXPECT_EQ(databaseValue(service,
                            "SELECT count(*) FROM pg_stat_activity WHERE datname = "
                            "current_database() AND state LIKE 'idle in transaction%'"),
              "0");
    // The checks PostgreSQL has for its own files: every B-tree index of the service's tables.
    databaseValue(service, "CREATE EXTENSION IF NOT EXISTS amcheck");
    // (each check throws when an index is damaged)
    EXPECT_GE(std::stoi(databaseValue(
                  service,
                  "SELECT count(bt_index_check(c.oid, true)::text) FROM pg_index i JOIN "
                  "pg_class c ON c.oid = i.indexrelid JOIN pg_am m ON m.oid = c.relam "
                  "WHERE m.amname = 'btree' AND c.relnamespace = 'public'::regnamespace")),
              10);
    // And the service still takes a clip whole.
    const std::string id = upload(service, token, original, "after");
    ASSERT_FALSE(id.empty());
    EXPECT_EQ(md5(client(reader.endpoint())->Get("/files/" + id + ".mp4")->body), md5(original));
}

TEST(ServiceScaleTest, MigrationMovesAFolderWithClipsPacksAndTokensWhole)
{
    ASSERT_TRUE(onSharedStores()) << "runs against the service_pair fixture's stores";
    OwnService old({}, OwnService::Stores::dataFolder);
    const ServiceEndpoint &before = old.endpoint();
    const std::string email = addUser(before, "Mo", "mo's password");
    const std::string token = issueToken(before, email);
    const std::string revoked = issueToken(before, email);
    ASSERT_EQ(runCommand(before, {"token", "revoke", "-"}, revoked + "\n").status, 0);
    TempFolder folder;
    const std::string small = readFile(makeClip(folder.path(), "s.mp4", 1));
    const std::string large = largeClip(folder.path(), 18);
    const std::string kept = upload(before, token, small, "kept");
    const std::string big = upload(before, token, large, "big");
    const std::string gone = upload(before, token, small, "gone");
    for (const std::string &id : {kept, big, gone})
        ASSERT_TRUE(waitForPoster(before, id));
    auto http = client(before);
    const auto pack = http->Post("/v1/packs", bearer(token),
                                 json({{"title", "moved"}, {"clip_ids", {big, kept}}}).dump(),
                                 "application/json");
    ASSERT_EQ(pack->status, 200);
    const std::string packPath =
        json::parse(pack->body)["url"].get<std::string>().substr(before.url.size());
    ASSERT_EQ(http->Delete("/v1/clips/" + gone, bearer(token))->status, 204);
    writeFile(folder.path() / "release.tar.gz", std::string(5000, 'r'));
    writeFile(folder.path() / "sig", std::string(64, 's'));
    ASSERT_EQ(runCommand(before,
                         {"release", "add", "2.0.0", (folder.path() / "release.tar.gz").string(),
                          "--notes", "New", "--signature", (folder.path() / "sig").string()})
                  .status,
              0);
    writeFile(folder.path() / "ads.json", R"({"slots": [{"id": "m"}]})");
    ASSERT_EQ(runCommand(before, {"ads", "set", (folder.path() / "ads.json").string()}).status, 0);
    old.kill9();

    // What the folder holds, to compare afterwards (SQLite's shared-memory index aside, which
    // any reader may touch).
    const auto contents = [&] {
        std::map<std::string, std::string> files;
        for (const auto &entry : fs::recursive_directory_iterator(before.data))
            if (entry.is_regular_file() && entry.path().extension() != ".sqlite3-shm")
                files[entry.path().string()] = md5(readFile(entry.path()));
        return files;
    };
    const auto untouched = contents();

    const std::string database = makeDatabase();
    const std::string files = "s3://vantrel-tests/migrated-" + std::to_string(::getpid());
    const std::vector<std::string> move {
        "migrate", "--to", database, "--files", files, "--s3-endpoint", std::getenv("S3_ENDPOINT")};
    const CommandResult moved = runCommand(before, move);
    ASSERT_EQ(moved.status, 0) << moved.errors;
    EXPECT_NE(moved.errors.find("Copied and checked 5 file(s)"), std::string::npos) << moved.errors;
    EXPECT_EQ(contents(), untouched) << "the old installation is left as it was";
    const CommandResult again = runCommand(before, move);
    EXPECT_EQ(again.status, 1) << "a second move into the same database is refused";

    OwnService moved_(database, files, {});
    const ServiceEndpoint &after = moved_.endpoint();
    auto now = client(after);
    const auto me = now->Get("/v1/me", bearer(token));
    ASSERT_EQ(me->status, 200);
    EXPECT_EQ(json::parse(me->body)["email"], email);
    EXPECT_EQ(now->Get("/v1/me", bearer(revoked))->status, 401) << "revoked stays revoked";
    EXPECT_EQ(md5(now->Get("/files/" + big + ".mp4")->body), md5(large));
    EXPECT_EQ(now->Get("/files/" + kept + ".mp4")->body, small);
    EXPECT_EQ(now->Get("/files/" + kept + ".jpg")->status, 200);
    EXPECT_EQ(now->Get("/c/" + gone)->status, 410) << "deleted stays deleted";
    const auto packPage = now->Get(packPath);
    ASSERT_EQ(packPage->status, 200);
    EXPECT_LT(packPage->body.find(big), packPage->body.find(kept)) << "in the order given";
    EXPECT_EQ(json::parse(now->Get("/v1/version")->body)["version"], "2.0.0");
    EXPECT_EQ(now->Get("/download/Vantrel-2.0.0-linux-x86_64.tar.gz")->body,
              std::string(5000, 'r'));
    EXPECT_EQ(now->Get("/v1/ads")->body, R"({"slots": [{"id": "m"}]})");
    EXPECT_EQ(
        now->Post("/account", httplib::Params {{"email", email}, {"password", "mo's password"}})
            ->status,
        303)
        << "the password moved with the account";
}
