#include "service/ServiceServer.h"

#include "service/ApiRoutes.h"
#include "service/Authentication.h"
#include "service/ClipUpload.h"
#include "service/FileRoutes.h"
#include "service/FrontDoor.h"
#include "service/HttpReply.h"
#include "service/PageRoutes.h"
#include "service/RequestStream.h"
#include "service/ServiceLog.h"

#include <httplib.h>
#include <openssl/ssl.h>

#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

using httplib::Request;
using httplib::Response;

// The HTTP library's server, asked to serve one request at a time on a stream the front door
// hands it (its own listening and thread pool go unused).
class HttpEngine : public httplib::Server
{
public:
    HttpEngine()
    {
        // The library takes an invalid listening socket to mean it is shutting down, and then
        // stops a streamed answer (a clip's file) before its first byte. It is given a
        // descriptor of its own to hold instead, which it never listens on.
        m_placeholder = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        svr_sock_ = m_placeholder;
    }
    ~HttpEngine() override
    {
        svr_sock_ = INVALID_SOCKET;
        if (m_placeholder >= 0)
            ::close(m_placeholder);
    }
    HttpEngine(const HttpEngine &) = delete;
    HttpEngine &operator=(const HttpEngine &) = delete;

    using httplib::Server::process_request;

private:
    int m_placeholder = -1;
};

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

bool isUpload(const std::string &method, const std::string &path)
{
    return method == "POST" && path == "/v1/clips";
}

SSL_CTX *loadTls(const std::string &certificate, const std::string &key)
{
    SSL_CTX *context = SSL_CTX_new(TLS_server_method());
    if (!context)
        throw std::runtime_error("TLS could not be set up.");
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_options(
        context, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE);
    // Writes may stop part way on a busy socket; an idle connection keeps no TLS buffers.
    SSL_CTX_set_mode(context,
                     SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                         SSL_MODE_RELEASE_BUFFERS);
    // Records are read from the socket as many at a time as have come, not a header and a body
    // apiece: an upload takes half the reads. (Every reader drains what is buffered before it
    // waits on the socket again, so nothing read ahead is left waiting.)
    SSL_CTX_set_read_ahead(context, 1);
    SSL_CTX_set_default_read_buffer_len(context, 256 * 1024);
    if (SSL_CTX_use_certificate_chain_file(context, certificate.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(context, key.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(context) != 1) {
        SSL_CTX_free(context);
        throw std::runtime_error("The TLS certificate " + certificate + " or its key " + key +
                                 " could not be loaded, or they do not belong together.");
    }
    return context;
}

} // namespace

void ServiceServer::TlsFree::operator()(SSL_CTX *context) const
{
    SSL_CTX_free(context);
}

ServiceServer::ServiceServer(ServiceContext &context, const ListenConfig &config)
    : m_context(context)
    , m_config(config)
    , m_engine(std::make_unique<HttpEngine>())
{
    if (!config.tlsCertificate.empty())
        m_tls.reset(loadTls(config.tlsCertificate, config.tlsKey));
    installRules();
    ApiRoutes::install(*m_engine, m_context);
    FileRoutes::install(*m_engine, m_context);
    PageRoutes::install(*m_engine, m_context);

    const ServiceLimits &limits = m_context.limits;
    FrontDoorLimits door;
    door.maxConnections = limits.maxConnections;
    door.connectionsPerAddress = limits.connectionsPerAddress;
    door.handshakeTimeout = std::chrono::seconds(limits.handshakeSeconds);
    door.headTimeout = std::chrono::seconds(limits.headSeconds);
    door.keepAliveTimeout = std::chrono::seconds(limits.keepAliveSeconds);
    door.ioTimeout = std::chrono::seconds(limits.ioTimeoutSeconds);
    door.workers = limits.threads;
    door.workersPerClient = std::max(1, limits.threads / 4);
    door.head.maxHeaders = size_t(limits.maxHeaderCount);
    door.head.maxBytes = size_t(limits.maxHeaderBytes);
    door.smallBodyBytes = limits.maxSmallBodyBytes;

    std::vector<std::pair<std::string, std::string>> headers {
        {"X-Content-Type-Options", "nosniff"}};
    // Browsers that once reached the service over TLS never try it without again.
    if (m_tls)
        headers.emplace_back("Strict-Transport-Security", "max-age=31536000");
    m_engine->set_default_headers(httplib::Headers(headers.begin(), headers.end()));

    ServiceContext *service = &m_context;
    auto bodyRule = [service](const RequestHead &head) -> FrontDoor::BodyLimit {
        if (isUpload(head.method(), head.path()))
            return {service->limits.maxUploadBytes + ClipUpload::formAllowanceBytes,
                    ClipUpload::tooLargeDetail(service->limits)};
        return {service->limits.maxSmallBodyBytes,
                "The request is larger than " +
                    std::to_string(service->limits.maxSmallBodyBytes / 1024) + " KiB."};
    };
    HttpEngine *engine = m_engine.get();
    auto serve = [engine](RequestStream &stream, bool closeAfter) {
        bool closed = false;
        try {
            engine->process_request(stream, closeAfter, closed, {});
        } catch (const std::exception &e) {
            // The routes' own failures are answered by the exception handler; this is the
            // library failing around them (out of memory, say).
            ServiceLog::line(std::string("vantrel-service: a request failed: ") + e.what());
        }
    };
    FrontDoor::Log log;
    if (m_config.logRequests) {
        log.answer = [](const std::string &client, const std::string &method,
                        const std::string &path,
                        int status) { ServiceLog::request(client, {}, method, path, status); };
    }
    log.notice = [](const std::string &text) { ServiceLog::line("vantrel-service: " + text); };
    m_door = std::make_unique<FrontDoor>(door, m_config.trustedProxies, m_tls.get(),
                                         std::move(headers), bodyRule, serve, log);
}

ServiceServer::~ServiceServer() = default;

void ServiceServer::installRules()
{
    const ServiceLimits &limits = m_context.limits;
    // The largest body anyone may send: an upload at the limit with its form around it. The
    // front door refuses larger ones before their first byte; this is the library's own guard.
    m_engine->set_payload_max_length(limits.maxUploadBytes + ClipUpload::formAllowanceBytes);
    // What the library tells clients in Keep-Alive; the front door holds connections to it.
    m_engine->set_keep_alive_timeout(limits.keepAliveSeconds);
    m_engine->set_keep_alive_max_count(size_t(FrontDoorLimits().requestsPerConnection));

    m_engine->set_pre_routing_handler([](const Request &req, Response &) {
        forgetRanges(req);
        return httplib::Server::HandlerResponse::Unhandled;
    });
    // Replies the library makes itself (no route, a malformed request) and routes that set only
    // a status still carry a sentence.
    m_engine->set_error_handler(
        httplib::Server::HandlerWithResponse([](const Request &req, Response &res) {
            forgetRanges(req);
            if (!res.body.empty() || res.content_length_ > 0)
                return httplib::Server::HandlerResponse::Unhandled;
            HttpReply::error(res, res.status, detailFor(res.status));
            return httplib::Server::HandlerResponse::Handled;
        }));
    // A route that answered without reading the body it was sent (a refusal) leaves the body on
    // the connection: the client is told that the connection closes.
    m_engine->set_post_routing_handler([](const Request &, Response &res) {
        const RequestStream *stream = RequestStream::current();
        if (stream && !stream->bodyRead())
            res.set_header("Connection", "close");
    });
    m_engine->set_exception_handler([](const Request &req, Response &res,
                                       std::exception_ptr error) {
        std::string what = "unknown";
        try {
            std::rethrow_exception(error);
        } catch (const std::exception &e) {
            what = e.what();
        } catch (...) {
        }
        ServiceLog::line("vantrel-service: " + req.method + " " + req.path + " failed: " + what);
        HttpReply::error(res, 500, detailFor(500));
    });
    // A client that announces its upload is told before it sends a byte when the upload would
    // be refused anyway.
    ServiceContext *context = &m_context;
    m_engine->set_expect_100_continue_handler([context](const Request &req, Response &res) {
        if (!isUpload(req.method, req.path))
            return 100;
        if (!Authentication::bearer(*context, req, res))
            return res.status;
        return 100;
    });
    if (m_config.logRequests)
        m_engine->set_logger([](const Request &req, const Response &res) {
            const RequestStream *stream = RequestStream::current();
            ServiceLog::request(req.remote_addr, stream ? stream->connection().peer() : "",
                                req.method, req.path, res.status);
        });
}

int ServiceServer::bind()
{
    return m_door->bind(m_config.host, m_config.port);
}

void ServiceServer::run()
{
    m_door->run();
}

void ServiceServer::stop()
{
    m_door->stop();
}
