// What a flood and a bomb do to a server of the test's own: a request from someone else is
// answered at once while connections sit silent, trickle their heads, hold uploads or carry
// thousands of header lines, and neither those nor a video built to explode when decoded take
// the server's memory. Stalls are waited for only a few seconds: that is already a failure.
#include "service/AttackTools.h"
#include "service/ServiceTestSupport.h"

#include "support/ChildProcess.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <thread>

using nlohmann::json;
using namespace std::chrono_literals;
using std::chrono::milliseconds;
namespace fs = std::filesystem;

namespace {

constexpr milliseconds patience = 5s;

std::string multipartUpload(const std::string &token, const std::string &clip)
{
    const std::string boundary = "Boundary-B0MB";
    const std::string body = "--" + boundary +
        "\r\nContent-Disposition: form-data; name=\"name\"\r\n\r\nbomb\r\n--" + boundary +
        "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"b.mp4\"\r\n"
        "Content-Type: video/mp4\r\n\r\n" +
        clip + "\r\n--" + boundary + "--\r\n";
    return "POST /v1/clips HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer " + token +
        "\r\nContent-Type: multipart/form-data; boundary=" + boundary +
        "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
        body;
}

// Every connection is closed by the server before `deadline`.
bool allClosedBy(std::vector<std::unique_ptr<RawConnection>> &connections,
                 std::chrono::steady_clock::time_point deadline)
{
    for (auto &connection : connections) {
        const auto left =
            std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
        if (!connection->closedByServer(std::max(left, milliseconds(1))))
            return false;
    }
    return true;
}

} // namespace

TEST(ServiceFloodTest, SilentTricklingAndLengthlessConnectionsStallNobody)
{
    // Eight workers, so that holding all of them is cheap to try; a head gets two seconds.
    OwnService own({"--threads", "8", "--handshake-timeout", "2", "--head-timeout", "2"});
    const ServiceEndpoint &service = own.endpoint();
    const int port = service.port;
    const std::string token = issueToken(service, addUser(service, "Flo"));

    // 70 connections that never start TLS, from three addresses (under the per-address limit).
    std::vector<std::unique_ptr<RawConnection>> silent;
    const milliseconds silentStall = worstStallDuring(port, "/v1/ads", patience, [&] {
        for (int i = 0; i < 70; ++i)
            silent.push_back(std::make_unique<RawConnection>(
                port, RawConnection::Start::tcpOnly, "127.0.0." + std::to_string(2 + i % 3)));
        std::this_thread::sleep_for(500ms);
    });
    reportFigure("stall of GET /v1/ads during 70 silent connections", silentStall.count(), "ms");
    ASSERT_LT(silentStall, 1500ms);
    EXPECT_TRUE(allClosedBy(silent, std::chrono::steady_clock::now() + 4s))
        << "silent connections are cut after the handshake time";
    silent.clear();

    // 200 TLS connections sending their head a line every half second, from seven addresses.
    std::vector<std::unique_ptr<RawConnection>> trickling;
    const milliseconds trickleStall = worstStallDuring(port, "/v1/ads", patience, [&] {
        for (int i = 0; i < 200; ++i) {
            trickling.push_back(std::make_unique<RawConnection>(
                port, RawConnection::Start::tls, "127.0.1." + std::to_string(1 + i % 7)));
            trickling.back()->send("GET / HTTP/1.1\r\n");
        }
        for (int round = 0; round < 6; ++round) {
            for (auto &connection : trickling)
                connection->send("X-Slow-" + std::to_string(round) + ": x\r\n");
            std::this_thread::sleep_for(500ms);
        }
    });
    reportFigure("stall of GET /v1/ads during 200 trickling heads", trickleStall.count(), "ms");
    ASSERT_LT(trickleStall, 1500ms);
    // Each was answered 408 and closed (or, when its next line came after the close, reset).
    int cut = 0;
    for (auto &connection : trickling)
        cut += connection->answerStatus(2s) == 408 || connection->closedByServer(1ms);
    EXPECT_EQ(cut, 200) << "a head gets two seconds, however it trickles";
    trickling.clear();

    // 64 PUTs without a length, each refused at once, holding nothing.
    std::vector<std::unique_ptr<RawConnection>> lengthless;
    int refused = 0;
    const milliseconds lengthlessStall = worstStallDuring(port, "/v1/ads", patience, [&] {
        for (int i = 0; i < 64; ++i) {
            lengthless.push_back(std::make_unique<RawConnection>(
                port, RawConnection::Start::tls, "127.0.2." + std::to_string(1 + i % 3)));
            lengthless.back()->send("PUT /v1/clips HTTP/1.1\r\nHost: localhost\r\n\r\n");
        }
        for (auto &connection : lengthless)
            refused += connection->answerStatus(2s) == 411;
    });
    reportFigure("stall of GET /v1/ads during 64 PUTs without a length", lengthlessStall.count(),
                 "ms");
    EXPECT_LT(lengthlessStall, 1500ms);
    EXPECT_EQ(refused, 64);
    lengthless.clear();

    // Eight uploads from one client that send a little and stall hold no more than its share
    // of the workers (two of eight).
    std::vector<std::unique_ptr<RawConnection>> uploads;
    const milliseconds uploadStall = worstStallDuring(port, "/v1/ads", patience, [&] {
        for (int i = 0; i < 8; ++i) {
            uploads.push_back(
                std::make_unique<RawConnection>(port, RawConnection::Start::tls, "127.0.3.1"));
            uploads.back()->send("POST /v1/clips HTTP/1.1\r\nHost: localhost\r\nAuthorization: "
                                 "Bearer " +
                                 token +
                                 "\r\nContent-Type: multipart/form-data; boundary=x\r\n"
                                 "Content-Length: 10000000\r\n\r\n--x\r\n");
        }
        std::this_thread::sleep_for(1s);
    });
    reportFigure("stall of GET /v1/ads during 8 stalled uploads from one client",
                 uploadStall.count(), "ms");
    EXPECT_LT(uploadStall, 1500ms);
    uploads.clear();

    // One address gets 32 connections; the 33rd and later are closed at once.
    std::vector<std::unique_ptr<RawConnection>> crowd;
    for (int i = 0; i < 40; ++i)
        crowd.push_back(
            std::make_unique<RawConnection>(port, RawConnection::Start::tcpOnly, "127.0.4.1"));
    std::this_thread::sleep_for(300ms);
    int closedAtOnce = 0;
    for (auto &connection : crowd)
        closedAtOnce += connection->closedByServer(1ms);
    EXPECT_EQ(closedAtOnce, 8);
    EXPECT_LT(timedGet(port, "/v1/ads", patience), 1500ms) << "other addresses are still served";
}

TEST(ServiceFloodTest, HeaderAndVideoBombsTakeNoMemory)
{
    OwnService own;
    const ServiceEndpoint &service = own.endpoint();
    const int port = service.port;
    const std::string token = issueToken(service, addUser(service, "Bo"));
    TempFolder folder;
    const double start = residentMiB(own.pid());

    // One head of 26,000 header lines of a kilobyte, then four at once: each refused after its
    // first 16 KiB.
    const std::string heads = headWithHeaders("GET", "/", 26000, 1000);
    const auto bomb = [&] {
        RawConnection connection(port, RawConnection::Start::tls, "127.0.5.1");
        connection.send(heads);
        return connection.answerStatus(patience);
    };
    EXPECT_EQ(bomb(), 431);
    std::vector<std::thread> bombers;
    std::vector<int> statuses(4);
    for (int i = 0; i < 4; ++i)
        bombers.emplace_back([&, i] { statuses[size_t(i)] = bomb(); });
    for (std::thread &bomber : bombers)
        bomber.join();
    EXPECT_EQ(statuses, std::vector<int>(4, 431));
    const double afterHeaders = residentMiB(own.pid());
    reportFigure("server memory growth from five 26,000-line heads", afterHeaders - start, "MiB");
    EXPECT_LT(afterHeaders - start, 30);

    // A 16000 × 16000 PNG frame in an MP4 is not H.264, and nothing decodes it.
    const std::string png =
        readFile(makeFrameClip(folder.path(), "png.mp4", "png", "16000x16000", "monob"));
    {
        RawConnection connection(port, RawConnection::Start::tls, "127.0.5.2");
        connection.send(multipartUpload(token, png));
        EXPECT_EQ(connection.answerStatus(30s), 415);
        EXPECT_NE(connection.receive(2s).find("H.264"), std::string::npos);
    }
    // H.264 larger than 7680 × 4320 is refused from the file's header; the same stream under a
    // header that claims 320 × 180 is taken, but its decoder refuses the stream's own size,
    // so it gets no poster (and no gigabytes).
    std::string large =
        readFile(makeFrameClip(folder.path(), "large.mp4", "h264", "8192x4096", "gray"));
    {
        RawConnection connection(port, RawConnection::Start::tls, "127.0.5.2");
        connection.send(multipartUpload(token, large));
        EXPECT_EQ(connection.answerStatus(30s), 415);
        EXPECT_NE(connection.receive(2s).find("8192 × 4096"), std::string::npos);
    }
    declareSize(large, 320, 180);
    std::string id;
    {
        RawConnection connection(port, RawConnection::Start::tls, "127.0.5.2");
        connection.send(multipartUpload(token, large));
        EXPECT_EQ(connection.answerStatus(30s), 200);
        const std::string answer = connection.receive(2s);
        const json reply = json::parse(answer.substr(answer.find("\r\n\r\n") + 4), nullptr, false);
        ASSERT_TRUE(reply.is_object() && reply.contains("id")) << answer;
        id = reply["id"];
    }
    auto http = client(service);
    EXPECT_EQ(http->Get("/files/" + id + ".jpg")->status, 404);
    const double afterVideos = residentMiB(own.pid());
    reportFigure("server memory growth from the video bombs", afterVideos - afterHeaders, "MiB");
    EXPECT_LT(afterVideos - afterHeaders, 30);

    // The check runs in a child that holds itself to its memory: with too little it reports
    // the file and dies making the poster; with the service's budget it makes one.
    const fs::path clip = makeClip(folder.path(), "hd.mp4", 1, "1280x720");
    // (A sanitizer build's allocator would stop to report the failure instead of returning
    // it to FFmpeg; told to return it, it fails as the release build does.)
    const char *sanitizer = std::getenv("ASAN_OPTIONS");
    const ChildProcess::Environment failQuietly {
        {"ASAN_OPTIONS", std::string(sanitizer ? sanitizer : "") + ":allocator_may_return_null=1"}};
    const auto inspect = [&](const std::string &memory) {
        const fs::path out = folder.path() / ("inspect-" + memory);
        const int status =
            ChildProcess::run({"sh", "-c",
                               "exec \"$0\" inspect-clip \"$1\" --memory \"$2\" --seconds 30 "
                               "--width 7680 --height 4320 >\"$3\"",
                               service.binary, clip.string(), memory, out.string()},
                              failQuietly);
        return std::pair {status, readFile(out)};
    };
    const auto [starved, starvedOutput] = inspect("4M");
    EXPECT_NE(starved, 0);
    EXPECT_EQ(starvedOutput.rfind("ok 1280 720 ", 0), 0u) << starvedOutput;
    EXPECT_EQ(starvedOutput.back(), '\n') << "the report alone, without a poster";
    const auto [fed, fedOutput] = inspect("512M");
    EXPECT_EQ(fed, 0);
    const size_t reportEnd = fedOutput.find('\n') + 1;
    EXPECT_EQ(fedOutput.substr(reportEnd, 2), "\xff\xd8") << "a JPEG follows the report";
    EXPECT_LT(timedGet(port, "/v1/ads", patience), 1500ms);
}
