#include "TestServer.h"

#include "cloud/SharedNetwork.h"

#include <QNetworkAccessManager>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

std::string TestServer::Seen::header(const std::string &name) const
{
    const auto it = headers.find(name);
    return it == headers.end() ? std::string() : it->second;
}

TestServer::~TestServer()
{
    // The server's threads wait out a kept-alive connection (5 s) unless the client lets go.
    SharedNetwork::manager().clearConnectionCache();
    // stop() does nothing until the accept loop runs, so wait for that first.
    for (int i = 0; i < 500 && m_thread.joinable() && !m_server.is_running(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    m_server.stop();
    if (m_thread.joinable())
        m_thread.join();
}

void TestServer::answer(const std::string &method, const std::string &path, int status,
                        const std::string &body, const std::string &contentType)
{
    auto handler = [this, status, body, contentType](const httplib::Request &request,
                                                     httplib::Response &response) {
        record(request);
        response.status = status;
        if (!body.empty())
            response.set_content(body, contentType.c_str());
    };
    if (method == "GET")
        m_server.Get(path, handler);
    else
        m_server.Post(path, handler);
}

void TestServer::start()
{
    m_port = m_server.bind_to_any_port("127.0.0.1");
    ASSERT_GT(m_port, 0);
    m_thread = std::thread([this] { m_server.listen_after_bind(); });
    setenv("VANTREL_SERVICE_URL", url().toUtf8().constData(), 1);
}

QString TestServer::url() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(m_port);
}

void TestServer::record(const httplib::Request &request, std::string body)
{
    std::scoped_lock lock(m_mutex);
    m_seen.push_back({request.method, request.target, request.headers,
                      body.empty() ? request.body : std::move(body)});
}

std::vector<TestServer::Seen> TestServer::seen() const
{
    std::scoped_lock lock(m_mutex);
    return m_seen;
}
