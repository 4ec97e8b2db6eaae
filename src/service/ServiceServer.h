#pragma once

#include "service/ServiceContext.h"
#include "service/TrustedProxies.h"

#include <memory>
#include <string>

class FrontDoor;
class HttpEngine;
typedef struct ssl_ctx_st SSL_CTX;

// Where and how the server listens.
struct ListenConfig
{
    std::string host = "127.0.0.1";
    int port = 8443; // 0: any free port
    std::string tlsCertificate; // PEM chain; empty with the key: plain HTTP
    std::string tlsKey;
    bool logRequests = true;
    // Proxies whose X-Forwarded-For names the client (--trusted-proxy).
    TrustedProxies trustedProxies;
};

// The HTTP(S) server: every route and the rules every reply follows, behind the front door that
// accepts connections and checks requests before the HTTP library sees them.
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

    bool usesTls() const { return m_tls != nullptr; }

private:
    struct TlsFree
    {
        void operator()(SSL_CTX *context) const;
    };

    void installRules();

    ServiceContext &m_context;
    ListenConfig m_config;
    std::unique_ptr<SSL_CTX, TlsFree> m_tls;
    std::unique_ptr<HttpEngine> m_engine;
    std::unique_ptr<FrontDoor> m_door;
};
