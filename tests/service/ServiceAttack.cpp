// service_attack: the attack tests' attacks at the sizes they were first tried at, against a
// vantrel-service already running on 127.0.0.1 (any build, any version), for figures by hand:
//
//   service_attack PORT PID silent 70 60          70 connections that never start TLS, held 60 s
//   service_attack PORT PID trickle 200 60 5      200 heads sent a line every 5 s, for 60 s
//   service_attack PORT PID lengthless 64 60      64 PUTs without a length, held 60 s
//   service_attack PORT PID headers 26000 4 8000  one head of 26,000 lines of 8000 bytes, then
//                                                 4 at once
//   service_attack PORT PID upload TOKEN FILE 3   FILE uploaded once, then 3 at once
//   service_attack PORT PID device-page 300       300 guessed codes on the device page
//
// It prints the longest a GET /v1/ads waited meanwhile (up to 120 s), the statuses, and the
// server's resident memory before, after and at its peak.
#include "service/AttackTools.h"

#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using std::chrono::milliseconds;

namespace {

constexpr milliseconds patience = 120s;

std::string source(int i)
{
    // Spread over addresses, as an attacker with a few machines would.
    return "127.0.9." + std::to_string(1 + i % 8);
}

void printStatuses(const std::map<int, int> &statuses)
{
    // 0: no answer; -1: no answer and closed by the server.
    std::printf("answers:");
    for (const auto &[status, count] : statuses)
        std::printf(" %d×%s", count,
                    status == 0      ? "none (open)"
                        : status < 0 ? "none (closed)"
                                     : std::to_string(status).c_str());
    std::printf("\n");
}

// Opens the connections from many threads at once: against a server whose workers are all
// held, each handshake waits, and one after another they would take an hour.
std::vector<std::unique_ptr<RawConnection>> openAll(int port, int count, RawConnection::Start start,
                                                    const std::string &first)
{
    std::vector<std::unique_ptr<RawConnection>> connections(static_cast<size_t>(count));
    std::vector<std::thread> threads;
    for (int t = 0; t < 32; ++t)
        threads.emplace_back([&, t] {
            for (int i = t; i < count; i += 32) {
                connections[size_t(i)] = std::make_unique<RawConnection>(port, start, source(i));
                if (!first.empty())
                    connections[size_t(i)]->send(first);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    return connections;
}

int outcome(RawConnection &connection)
{
    const int status = connection.answerStatus(std::chrono::milliseconds(1));
    return status != 0 ? status : connection.closedByServer(std::chrono::milliseconds(1)) ? -1 : 0;
}

std::string uploadRequest(const std::string &token, const std::string &clip)
{
    const std::string body = "--B\r\nContent-Disposition: form-data; name=\"file\"; "
                             "filename=\"a.mp4\"\r\nContent-Type: video/mp4\r\n\r\n" +
        clip + "\r\n--B--\r\n";
    return "POST /v1/clips HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " + token +
        "\r\nContent-Type: multipart/form-data; boundary=B\r\nContent-Length: " +
        std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

int usage()
{
    std::fputs("usage: service_attack PORT PID silent|trickle|lengthless|headers|upload|"
               "device-page ARGS (see the source's head)\n",
               stderr);
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 5)
        return usage();
    const int port = std::atoi(argv[1]);
    const pid_t pid = std::atoi(argv[2]);
    const std::string attack = argv[3];
    const std::vector<std::string> args(argv + 4, argv + argc);
    const auto number = [&](size_t i) { return i < args.size() ? std::atoi(args[i].c_str()) : 0; };
    std::map<int, int> statuses;
    std::vector<std::unique_ptr<RawConnection>> connections;
    const double before = residentMiB(pid);

    milliseconds stall {0};
    if (attack == "silent" || attack == "lengthless") {
        const int count = number(0);
        const auto hold = std::chrono::seconds(number(1));
        const bool tls = attack == "lengthless";
        connections =
            openAll(port, count, tls ? RawConnection::Start::tls : RawConnection::Start::tcpOnly,
                    tls ? "PUT /v1/clips HTTP/1.1\r\nHost: x\r\n\r\n" : "");
        // A server with a short listening queue takes a flood of connections in over seconds
        // (the kernel answers the rest with SYN cookies and retries): the stall is measured
        // once they are all in.
        std::this_thread::sleep_for(std::chrono::seconds(tls ? 0 : 10));
        stall =
            worstStallDuring(port, "/v1/ads", patience, [&] { std::this_thread::sleep_for(hold); });
        for (auto &connection : connections)
            ++statuses[outcome(*connection)];
    } else if (attack == "trickle") {
        const int count = number(0);
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(number(1));
        const auto interval = std::chrono::seconds(std::max(1, number(2)));
        stall = worstStallDuring(port, "/v1/ads", patience, [&] {
            connections = openAll(port, count, RawConnection::Start::tls, "GET / HTTP/1.1\r\n");
            for (int line = 0; std::chrono::steady_clock::now() < end; ++line) {
                for (auto &connection : connections)
                    connection->send("X-Slow-" + std::to_string(line) + ": x\r\n");
                std::this_thread::sleep_for(interval);
            }
            for (auto &connection : connections)
                ++statuses[outcome(*connection)];
        });
    } else if (attack == "headers" || attack == "upload") {
        std::string request;
        int parallel = 0;
        if (attack == "headers") {
            request = headWithHeaders("GET", "/", number(0), size_t(std::max(1, number(2))));
            parallel = number(1);
        } else {
            std::ifstream file(args.at(1), std::ios::binary);
            request = uploadRequest(args.at(0),
                                    std::string(std::istreambuf_iterator<char>(file),
                                                std::istreambuf_iterator<char>()));
            parallel = number(2);
        }
        const auto send = [&](int i) {
            RawConnection connection(port, RawConnection::Start::tls, source(i));
            connection.send(request);
            return connection.answerStatus(patience);
        };
        stall = worstStallDuring(port, "/v1/ads", patience, [&] {
            ++statuses[send(0)];
            std::printf("after one: resident %.0f MiB, peak %.0f MiB\n", residentMiB(pid),
                        peakResidentMiB(pid));
            std::vector<std::thread> threads;
            std::vector<int> results(static_cast<size_t>(parallel));
            for (int i = 0; i < parallel; ++i)
                threads.emplace_back([&, i] { results[size_t(i)] = send(i + 1); });
            for (std::thread &thread : threads)
                thread.join();
            for (const int result : results)
                ++statuses[result];
        });
    } else if (attack == "device-page") {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < number(0); ++i) {
            RawConnection connection(port, RawConnection::Start::tls, source(0));
            char digits[16];
            std::snprintf(digits, sizeof digits, "%04d", i % 10000);
            connection.send(std::string("GET /device?code=ZZZZ-") + digits +
                            " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
            ++statuses[connection.answerStatus(10s)];
        }
        std::printf("time: %lld ms\n",
                    static_cast<long long>(std::chrono::duration_cast<milliseconds>(
                                               std::chrono::steady_clock::now() - start)
                                               .count()));
    } else {
        return usage();
    }
    printStatuses(statuses);
    std::printf("worst stall of GET /v1/ads: %.1f s%s\n", double(stall.count()) / 1000,
                stall >= patience ? " (gave up waiting)" : "");
    std::printf("server resident: %.0f MiB before, %.0f MiB after, peak %.0f MiB\n", before,
                residentMiB(pid), peakResidentMiB(pid));
    return 0;
}
