#pragma once

#include "service/ServiceContext.h"

#include <memory>
#include <string>

namespace httplib {
class Server;
}

// Where and how the server listens.
struct ListenConfig
{
    std::string host = "127.0.0.1";
    int port = 8443; // 0: any free port
    std::string tlsCertificate; // PEM chain; empty with the key: plain HTTP
    std::string tlsKey;
    bool logRequests = true;
};

// The HTTP(S) server: every route, the rules every reply follows, and the thread pool.
class ServiceServer
{
public:
    // Throws std::runtime_error with a sentence for the operator (a certificate that does not
    // load, say).
    ServiceServer(ServiceContext &context, const ListenConfig &config);
    ~ServiceServer();

    // Binds the listening socket and returns its port; throws std::runtime_error.
    int bind();
    // Serves until stop() is called from another thread.
    void run();
    void stop();

    bool usesTls() const { return m_tls; }

private:
    void installRules();

    ServiceContext &m_context;
    ListenConfig m_config;
    bool m_tls = false;
    std::unique_ptr<httplib::Server> m_server;
};
