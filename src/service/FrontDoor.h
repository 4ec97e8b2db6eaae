#pragma once

#include "service/Connection.h"
#include "service/RequestHead.h"
#include "service/TrustedProxies.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

class RequestStream;
class WorkerPool;
typedef struct ssl_ctx_st SSL_CTX;

// What the front door holds every connection to. The defaults suit one machine; `serve` has an
// option for each that an operator may want to move.
struct FrontDoorLimits
{
    // Connections open at once, in all and from one address (trusted proxies are not held to
    // the second: every client behind them shares their address).
    int maxConnections = 1000;
    int connectionsPerAddress = 32;
    // The TLS handshake; the request head (and a small body) from its first byte; the quiet
    // between two requests of one connection.
    std::chrono::milliseconds handshakeTimeout {std::chrono::seconds(10)};
    std::chrono::milliseconds headTimeout {std::chrono::seconds(10)};
    std::chrono::milliseconds keepAliveTimeout {std::chrono::seconds(5)};
    // The longest stall while a worker reads an upload or writes an answer.
    std::chrono::milliseconds ioTimeout {std::chrono::seconds(60)};
    int workers = 64;
    int workersPerClient = 16;
    int requestsPerConnection = 100;
    RequestHeadLimits head;
    // Bodies up to this size arrive whole before a worker sees the request.
    uint64_t smallBodyBytes = 64 * 1024;
};

// The service's listening socket and everything before a request reaches the HTTP library.
// One thread (the one in run()) accepts connections, does their TLS handshakes, reads and
// checks request heads and small bodies, all without blocking; a request goes to a worker only
// once it is complete, so a client that connects and stays silent, or sends its head a line at
// a time, holds no worker at all. Connections are bounded in all and per address, the
// handshake and the head each have a few seconds, and a head that breaks a rule is answered
// here (400, 408, 411, 413, 414, 431, 505) without the library seeing it. Between requests a
// connection comes back here to wait.
class FrontDoor
{
public:
    // The largest body a request may carry, and the sentence of the 413 above it. Above the
    // limits' small size only for requests whose worker reads the body as it comes (an upload).
    struct BodyLimit
    {
        uint64_t bytes;
        std::string refusal;
    };
    using BodyRule = std::function<BodyLimit(const RequestHead &)>;
    // Serves the request at the front of the stream; `closeAfter` tells it that the connection
    // will close after the answer.
    using Serve = std::function<void(RequestStream &stream, bool closeAfter)>;
    // Reports an answer the front door gave itself, and the odd notice for the log.
    struct Log
    {
        std::function<void(const std::string &client, const std::string &method,
                           const std::string &path, int status)>
            answer;
        std::function<void(const std::string &text)> notice;
    };

    // `tls` (kept by the caller for the front door's life) null: plain HTTP. `answerHeaders` go
    // on every answer the front door writes itself.
    FrontDoor(const FrontDoorLimits &limits, TrustedProxies proxies, SSL_CTX *tls,
              std::vector<std::pair<std::string, std::string>> answerHeaders, BodyRule bodyRule,
              Serve serve, Log log);
    ~FrontDoor();
    FrontDoor(const FrontDoor &) = delete;
    FrontDoor &operator=(const FrontDoor &) = delete;

    // Binds and listens; returns the port. Throws std::runtime_error.
    int bind(const std::string &host, int port);
    // Serves until stop(); requests being served when it is called get a few seconds to end.
    void run();
    // From any thread (a signal's waiter included).
    void stop();

private:
    struct Waiting;
    enum class After { keep, drain, close };

    void acceptAll();
    void admit(int socket, const std::string &peer, int peerPort);
    void advance(int socket);
    void readHead(Waiting &waiting);
    void readBody(Waiting &waiting);
    // Watches for what the last step of I/O wanted, or closes a connection that ended.
    void waitForMore(Waiting &waiting, Connection::Io io);
    void checkHead(Waiting &waiting, size_t headEnd);
    void dispatch(Waiting &waiting);
    void answer(Waiting &waiting, int status, const std::string &detail);
    void continueAnswer(Waiting &waiting);
    void drain(Waiting &waiting);
    void watch(Waiting &waiting, uint32_t events);
    void close(int socket);
    void sweep();
    void takeBack();
    void resume(std::unique_ptr<Connection> connection, After after);

    // On a worker thread.
    void serveOnWorker(std::unique_ptr<Connection> connection);
    void handBack(std::unique_ptr<Connection> connection, After after);

    const FrontDoorLimits m_limits;
    const TrustedProxies m_proxies;
    SSL_CTX *const m_tls;
    const std::vector<std::pair<std::string, std::string>> m_answerHeaders;
    const BodyRule m_bodyRule;
    const Serve m_serve;
    const Log m_log;

    int m_listener = -1;
    int m_epoll = -1;
    int m_wake = -1; // an eventfd: stop() and workers handing connections back
    std::atomic<bool> m_stopping {false};

    // The loop thread's own: connections waiting here, and the counts of all that are open.
    std::unordered_map<int, std::unique_ptr<Waiting>> m_waiting;
    std::unordered_map<std::string, int> m_perAddress;
    int m_open = 0;
    int m_refusedAtDoor = 0;
    bool m_listenerPaused = false;
    std::chrono::steady_clock::time_point m_lastSweep;
    std::chrono::steady_clock::time_point m_lastRefusalNotice;

    std::mutex m_handedBackMutex;
    // guarded by m_handedBackMutex
    std::vector<std::pair<std::unique_ptr<Connection>, After>> m_handedBack;
    std::mutex m_servingMutex;
    std::vector<int> m_serving; // guarded by m_servingMutex: sockets workers are serving

    std::unique_ptr<WorkerPool> m_workers;
};
