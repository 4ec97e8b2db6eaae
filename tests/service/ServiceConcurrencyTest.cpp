// Many clients at once against the fixture's server: none of their uploads is lost or mixed up
// with another's, and ranges read at the same time are all right. Run under ThreadSanitizer too.
#include "service/ServiceTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <random>
#include <thread>

using nlohmann::json;
namespace fs = std::filesystem;

TEST(ServiceConcurrencyTest, SimultaneousUploadsAndRangeReads)
{
    constexpr int clients = 12;
    const ServiceEndpoint service = fixtureService();
    const std::string email = addUser(service, "Ned");
    TempFolder folder;
    std::vector<std::string> clips, tokens;
    for (int i = 0; i < 3; ++i)
        clips.push_back(
            readFile(makeClip(folder.path(), "c" + std::to_string(i) + ".mp4", 1 + i * 0.5)));
    for (int i = 0; i < clients; ++i)
        tokens.push_back(issueToken(service, email));

    const std::string boundary = "Boundary-C0NCURRENT";
    std::vector<std::string> ids(clients);
    std::vector<std::string> names(clients);
    std::vector<std::thread> threads;
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back([&, i] {
            const std::string &clip = clips[size_t(i) % clips.size()];
            names[i] = "upload " + std::to_string(i);
            const std::string body = "--" + boundary +
                "\r\nContent-Disposition: form-data; name=\"name\"\r\n\r\n" + names[i] + "\r\n--" +
                boundary +
                "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"x.mp4\"\r\n"
                "Content-Type: video/mp4\r\n\r\n" +
                clip + "\r\n--" + boundary + "--\r\n";
            const auto result =
                client(service)->Post("/v1/clips", bearer(tokens[size_t(i)]), body,
                                      ("multipart/form-data; boundary=" + boundary).c_str());
            if (result && result->status == 200)
                ids[size_t(i)] = json::parse(result->body)["id"];
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    threads.clear();

    std::set<std::string> distinct(ids.begin(), ids.end());
    EXPECT_EQ(distinct.size(), size_t(clients));
    for (int i = 0; i < clients; ++i) {
        ASSERT_FALSE(ids[size_t(i)].empty()) << "upload " << i << " was lost";
        const auto page = client(service)->Get("/c/" + ids[size_t(i)]);
        EXPECT_NE(page->body.find(names[size_t(i)]), std::string::npos);
    }

    // Ranges of the same file read at once, each checked against the bytes sent.
    const std::string &original = clips[0];
    std::vector<int> wrong(clients, 0);
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back([&, i] {
            std::mt19937 random {unsigned(i)};
            auto http = client(service);
            for (int round = 0; round < 4; ++round) {
                const size_t first = random() % (original.size() - 1);
                const size_t last = std::min(original.size() - 1, first + random() % 20000);
                const auto part = http->Get(
                    "/files/" + ids[0] + ".mp4",
                    {{"Range", "bytes=" + std::to_string(first) + "-" + std::to_string(last)}});
                if (!part || part->status != 206 ||
                    part->body != original.substr(first, last - first + 1))
                    ++wrong[size_t(i)];
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    for (int i = 0; i < clients; ++i)
        EXPECT_EQ(wrong[size_t(i)], 0) << "reader " << i;
}
