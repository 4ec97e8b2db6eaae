#pragma once

#include <httplib.h>

#include <QString>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A small HTTP server inside the test, on a free port of 127.0.0.1, answering on its own thread
// with whatever the test registered. Handlers call `record` for requests the test wants to look
// at afterwards.
class TestServer
{
public:
    struct Seen
    {
        std::string method;
        std::string path; // as sent, percent-encoding included
        httplib::Headers headers;
        std::string body;

        std::string header(const std::string &name) const;
        bool has(const std::string &name) const { return headers.count(name) != 0; }
    };

    TestServer() = default;
    ~TestServer();
    TestServer(const TestServer &) = delete;
    TestServer &operator=(const TestServer &) = delete;

    httplib::Server &http() { return m_server; }

    // Registers an answer that records the request first.
    void answer(const std::string &method, const std::string &path, int status,
                const std::string &body, const std::string &contentType = "application/json");

    // Starts listening and points the program's service (VANTREL_SERVICE_URL) at this server.
    // Call before the first use of the service's address in this process.
    void start();
    QString url() const;

    void record(const httplib::Request &request, std::string body = {});
    std::vector<Seen> seen() const;

private:
    httplib::Server m_server;
    std::thread m_thread;
    int m_port = 0;
    mutable std::mutex m_mutex; // guards m_seen
    std::vector<Seen> m_seen;
};
