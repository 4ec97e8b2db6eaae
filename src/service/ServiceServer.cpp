#include "service/ServiceServer.h"

#include "service/ApiRoutes.h"
#include "service/Authentication.h"
#include "service/FileRoutes.h"
#include "service/HttpReply.h"
#include "service/PageRoutes.h"

#include <httplib.h>
#include <openssl/ssl.h>

#include <cstdio>
#include <ctime>
#include <stdexcept>

using httplib::Request;
using httplib::Response;

namespace {

// The library would apply a Range header to every reply on its own, trusting the client's
// numbers; the file routes answer ranges themselves, and nothing else should.
void forgetRanges(const Request &req)
{
    const_cast<Request &>(req).ranges.clear();
}

std::string detailFor(int status)
{
    switch (status) {
    case 400:
        return "The request is malformed.";
    case 404:
        return "There is nothing at this address.";
    case 413:
        return "The request is too large.";
    case 414:
        return "The address is too long.";
    case 416:
        return "The requested range is not valid.";
    default:
        return status >= 500 ? "Something went wrong on the server. Try again later."
                             : "The request was refused.";
    }
}

void logLine(const Request &req, const Response &res)
{
    char when[32];
    const std::time_t now = std::time(nullptr);
    std::tm utc {};
    gmtime_r(&now, &utc);
    std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &utc);
    // Query strings stay out of the log: the device page's holds a sign-in code.
    std::fprintf(stderr, "%s %s %s %s %d\n", when, req.remote_addr.c_str(), req.method.c_str(),
                 req.path.c_str(), res.status);
}

} // namespace

ServiceServer::ServiceServer(ServiceContext &context, const ListenConfig &config)
    : m_context(context)
    , m_config(config)
    , m_tls(!config.tlsCertificate.empty())
{
    if (m_tls) {
        const std::string certificate = config.tlsCertificate;
        const std::string key = config.tlsKey;
        auto server = std::make_unique<httplib::SSLServer>([&](SSL_CTX &ctx) {
            SSL_CTX_set_min_proto_version(&ctx, TLS1_2_VERSION);
            SSL_CTX_set_options(&ctx, SSL_OP_NO_COMPRESSION);
            return SSL_CTX_use_certificate_chain_file(&ctx, certificate.c_str()) == 1 &&
                SSL_CTX_use_PrivateKey_file(&ctx, key.c_str(), SSL_FILETYPE_PEM) == 1 &&
                SSL_CTX_check_private_key(&ctx) == 1;
        });
        if (!server->is_valid())
            throw std::runtime_error("The TLS certificate " + certificate + " or its key " + key +
                                     " could not be loaded, or they do not belong together.");
        m_server = std::move(server);
    } else {
        m_server = std::make_unique<httplib::Server>();
    }
    installRules();
    ApiRoutes::install(*m_server, m_context);
    FileRoutes::install(*m_server, m_context);
    PageRoutes::install(*m_server, m_context);
}

ServiceServer::~ServiceServer() = default;

void ServiceServer::installRules()
{
    const ServiceLimits &limits = m_context.limits;
    const int threads = limits.threads;
    m_server->new_task_queue = [threads] { return new httplib::ThreadPool(size_t(threads)); };
    // The largest body anyone may send: an upload at the limit with its form around it.
    m_server->set_payload_max_length(limits.maxUploadBytes + 1024 * 1024);
    m_server->set_read_timeout(limits.ioTimeoutSeconds, 0);
    m_server->set_write_timeout(limits.ioTimeoutSeconds, 0);
    m_server->set_default_headers({{"X-Content-Type-Options", "nosniff"}});

    m_server->set_pre_routing_handler([](const Request &req, Response &) {
        forgetRanges(req);
        return httplib::Server::HandlerResponse::Unhandled;
    });
    // Replies the library makes itself (no route, a malformed request) and routes that set only
    // a status still carry a sentence.
    m_server->set_error_handler(
        httplib::Server::HandlerWithResponse([](const Request &req, Response &res) {
            forgetRanges(req);
            if (!res.body.empty() || res.content_length_ > 0)
                return httplib::Server::HandlerResponse::Unhandled;
            HttpReply::error(res, res.status, detailFor(res.status));
            return httplib::Server::HandlerResponse::Handled;
        }));
    m_server->set_exception_handler(
        [](const Request &req, Response &res, std::exception_ptr error) {
            std::string what = "unknown";
            try {
                std::rethrow_exception(error);
            } catch (const std::exception &e) {
                what = e.what();
            } catch (...) {
            }
            std::fprintf(stderr, "vantrel-service: %s %s failed: %s\n", req.method.c_str(),
                         req.path.c_str(), what.c_str());
            HttpReply::error(res, 500, detailFor(500));
        });
    // A client that announces its upload is told before it sends a byte when the upload would
    // be refused anyway.
    ServiceContext *context = &m_context;
    m_server->set_expect_100_continue_handler([context](const Request &req, Response &res) {
        if (req.path != "/v1/clips")
            return 100;
        if (req.get_header_value<uint64_t>("Content-Length") >
            context->limits.maxUploadBytes + 1024 * 1024) {
            HttpReply::error(res, 413, "The file is larger than the upload limit.");
            return 413;
        }
        if (!Authentication::bearer(*context, req, res))
            return res.status;
        return 100;
    });
    if (m_config.logRequests)
        m_server->set_logger(logLine);
}

int ServiceServer::bind()
{
    int port = m_config.port;
    if (port == 0) {
        port = m_server->bind_to_any_port(m_config.host);
        if (port < 0)
            port = 0;
    } else if (!m_server->bind_to_port(m_config.host, port)) {
        port = 0;
    }
    if (port == 0)
        throw std::runtime_error("Cannot listen on " + m_config.host + ":" +
                                 std::to_string(m_config.port) +
                                 ": the address is in use or not this machine's.");
    return port;
}

void ServiceServer::run()
{
    m_server->listen_after_bind();
}

void ServiceServer::stop()
{
    m_server->stop();
}
