#include "service/FrontDoor.h"

#include "service/Connection.h"
#include "service/RequestStream.h"
#include "service/WorkerPool.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

// How long a refused or closing connection is read and dropped after its last answer, so that
// the client reads the answer before the connection goes (closing a socket with unread bytes
// resets it, and a reset can overtake the answer).
constexpr milliseconds drainTime {2000};
constexpr size_t drainBytes = 1 << 20;
// Requests being served when the service stops get this long to end.
constexpr milliseconds stopGrace {5000};
constexpr milliseconds sweepInterval {100};

const char *reasonPhrase(int status)
{
    switch (status) {
    case 400:
        return "Bad Request";
    case 408:
        return "Request Timeout";
    case 411:
        return "Length Required";
    case 413:
        return "Payload Too Large";
    case 414:
        return "URI Too Long";
    case 431:
        return "Request Header Fields Too Large";
    case 505:
        return "HTTP Version Not Supported";
    default:
        return "Error";
    }
}

std::string jsonString(const std::string &text)
{
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\')
            quoted += '\\';
        if (static_cast<unsigned char>(c) >= 0x20)
            quoted += c;
    }
    return quoted + "\"";
}

// The method and path of a head that never parsed, for the log: the first two words of its
// first line, the query left out.
std::pair<std::string, std::string> firstWords(std::string_view bytes)
{
    const std::string_view line = bytes.substr(0, std::min(bytes.find('\r'), size_t(512)));
    const size_t space = line.find(' ');
    if (space == std::string_view::npos)
        return {"-", "-"};
    std::string_view target = line.substr(space + 1);
    target = target.substr(0, std::min(target.find(' '), target.find('?')));
    return {std::string(line.substr(0, space)), std::string(target)};
}

} // namespace

enum class Phase { handshake, head, body, answering, draining };

struct FrontDoor::Waiting
{
    Waiting(std::unique_ptr<Connection> connection, const RequestHeadLimits &limits)
        : connection(std::move(connection))
        , scanner(limits)
    {
    }

    std::unique_ptr<Connection> connection;
    Phase phase = Phase::head;
    Clock::time_point deadline;
    // Whether bytes of the current request have come (until then a kept connection may idle).
    bool started = false;
    RequestHead::Scanner scanner;
    std::string answer;
    size_t answerSent = 0;
    size_t drained = 0;
    uint32_t events = 0; // what epoll watches for it; 0 when not registered
};

FrontDoor::FrontDoor(const FrontDoorLimits &limits, TrustedProxies proxies, SSL_CTX *tls,
                     std::vector<std::pair<std::string, std::string>> answerHeaders,
                     BodyRule bodyRule, Serve serve, Log log)
    : m_limits(limits)
    , m_proxies(std::move(proxies))
    , m_tls(tls)
    , m_answerHeaders(std::move(answerHeaders))
    , m_bodyRule(std::move(bodyRule))
    , m_serve(std::move(serve))
    , m_log(std::move(log))
{
    m_wake = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    m_epoll = ::epoll_create1(EPOLL_CLOEXEC);
    if (m_wake < 0 || m_epoll < 0)
        throw std::runtime_error(std::string("Cannot set up the server's loop: ") +
                                 std::strerror(errno));
}

FrontDoor::~FrontDoor()
{
    m_workers.reset();
    m_waiting.clear();
    m_handedBack.clear();
    if (m_listener >= 0)
        ::close(m_listener);
    ::close(m_epoll);
    ::close(m_wake);
}

int FrontDoor::bind(const std::string &host, int port)
{
    addrinfo hints {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo *found = nullptr;
    if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0 || !found)
        throw std::runtime_error("Cannot listen on " + host + ": not an address of this machine.");
    int listener = -1;
    for (addrinfo *address = found; address && listener < 0; address = address->ai_next) {
        listener = ::socket(address->ai_family, address->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                            address->ai_protocol);
        if (listener < 0)
            continue;
        const int yes = 1;
        ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        if (::bind(listener, address->ai_addr, address->ai_addrlen) != 0 ||
            ::listen(listener, SOMAXCONN) != 0) {
            ::close(listener);
            listener = -1;
        }
    }
    ::freeaddrinfo(found);
    if (listener < 0)
        throw std::runtime_error("Cannot listen on " + host + ":" + std::to_string(port) +
                                 ": the address is in use or not this machine's.");
    m_listener = listener;
    sockaddr_storage bound {};
    socklen_t size = sizeof bound;
    ::getsockname(m_listener, reinterpret_cast<sockaddr *>(&bound), &size);
    int boundPort = port;
    TrustedProxies::normalized(bound, boundPort);
    return boundPort;
}

void FrontDoor::run()
{
    if (m_listener < 0)
        throw std::runtime_error("The server is not bound to an address.");
    epoll_event event {};
    event.events = EPOLLIN;
    event.data.fd = m_listener;
    ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_listener, &event);
    event.data.fd = m_wake;
    ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_wake, &event);
    m_workers = std::make_unique<WorkerPool>(
        m_limits.workers, m_limits.workersPerClient,
        [this](std::unique_ptr<Connection> connection) { serveOnWorker(std::move(connection)); });
    m_lastSweep = m_lastRefusalNotice = Clock::now();

    epoll_event ready[64];
    while (!m_stopping) {
        const int timeout = m_waiting.empty() ? 1000 : int(sweepInterval.count());
        const int count = ::epoll_wait(m_epoll, ready, 64, timeout);
        for (int i = 0; i < count; ++i) {
            const int socket = ready[i].data.fd;
            if (socket == m_listener) {
                acceptAll();
            } else if (socket == m_wake) {
                uint64_t ignored = 0;
                [[maybe_unused]] const ssize_t got = ::read(m_wake, &ignored, sizeof ignored);
                takeBack();
            } else {
                advance(socket);
            }
        }
        sweep();
    }

    // Nothing new from here on; what is being served gets a moment to end.
    ::close(m_listener);
    m_listener = -1;
    m_waiting.clear();
    m_workers->stop();
    const auto giveUp = Clock::now() + stopGrace;
    for (;;) {
        {
            std::scoped_lock lock(m_servingMutex);
            if (m_serving.empty())
                break;
            if (Clock::now() >= giveUp) {
                for (const int socket : m_serving)
                    ::shutdown(socket, SHUT_RDWR);
                break;
            }
        }
        std::this_thread::sleep_for(milliseconds(20));
    }
    m_workers.reset();
    std::scoped_lock lock(m_handedBackMutex);
    m_handedBack.clear();
}

void FrontDoor::stop()
{
    m_stopping = true;
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(m_wake, &one, sizeof one);
}

void FrontDoor::acceptAll()
{
    for (;;) {
        sockaddr_storage address {};
        socklen_t size = sizeof address;
        const int socket = ::accept4(m_listener, reinterpret_cast<sockaddr *>(&address), &size,
                                     SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (socket < 0) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                // Out of descriptors: stop listening for a moment instead of spinning on a
                // connection that cannot be taken; the next sweep listens again.
                ::epoll_ctl(m_epoll, EPOLL_CTL_DEL, m_listener, nullptr);
                m_listenerPaused = true;
                m_refusedAtDoor += 1;
            }
            return;
        }
        int port = 0;
        admit(socket, TrustedProxies::normalized(address, port), port);
    }
}

void FrontDoor::admit(int socket, const std::string &peer, int peerPort)
{
    const bool proxy = m_proxies.contains(peer);
    const auto same = m_perAddress.find(peer);
    const int fromPeer = same == m_perAddress.end() ? 0 : same->second;
    if (m_open >= m_limits.maxConnections ||
        (!proxy && fromPeer >= m_limits.connectionsPerAddress)) {
        ++m_refusedAtDoor;
        ::close(socket);
        return;
    }
    const int yes = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    std::unique_ptr<Connection> connection;
    try {
        connection = std::make_unique<Connection>(socket, peer, peerPort, m_tls);
    } catch (const std::exception &) {
        return; // the connection closed the socket
    }
    ++m_open;
    ++m_perAddress[peer];
    connection->client = peer;
    auto waiting = std::make_unique<Waiting>(std::move(connection), m_limits.head);
    waiting->phase = m_tls ? Phase::handshake : Phase::head;
    waiting->started = true;
    waiting->deadline = Clock::now() + (m_tls ? m_limits.handshakeTimeout : m_limits.headTimeout);
    Waiting &entry = *waiting;
    m_waiting.emplace(socket, std::move(waiting));
    watch(entry, EPOLLIN);
}

void FrontDoor::watch(Waiting &waiting, uint32_t events)
{
    if (waiting.events == events)
        return;
    epoll_event event {};
    event.events = events;
    event.data.fd = waiting.connection->socket();
    ::epoll_ctl(m_epoll, waiting.events == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD,
                waiting.connection->socket(), &event);
    waiting.events = events;
}

void FrontDoor::close(int socket)
{
    const auto found = m_waiting.find(socket);
    if (found == m_waiting.end())
        return;
    const std::string peer = found->second->connection->peer();
    // Closing the socket takes it out of epoll as well.
    m_waiting.erase(found);
    --m_open;
    if (--m_perAddress[peer] <= 0)
        m_perAddress.erase(peer);
}

void FrontDoor::advance(int socket)
{
    const auto found = m_waiting.find(socket);
    if (found == m_waiting.end())
        return;
    Waiting &waiting = *found->second;
    Connection &connection = *waiting.connection;
    switch (waiting.phase) {
    case Phase::handshake: {
        const Connection::Io io = connection.handshake();
        if (io == Connection::Io::wantRead || io == Connection::Io::wantWrite)
            return watch(waiting, io == Connection::Io::wantWrite ? EPOLLOUT : EPOLLIN);
        if (io != Connection::Io::ready)
            return close(socket);
        waiting.phase = Phase::head;
        waiting.deadline = Clock::now() + m_limits.headTimeout;
        return readHead(waiting);
    }
    case Phase::head:
        return readHead(waiting);
    case Phase::body:
        return readBody(waiting);
    case Phase::answering:
        return continueAnswer(waiting);
    case Phase::draining: {
        const Connection::Io io = connection.receive(64 * 1024);
        waiting.drained += connection.buffered().size();
        connection.consume(connection.buffered().size());
        if (io == Connection::Io::ready && waiting.drained < drainBytes)
            return;
        if (io == Connection::Io::wantRead || io == Connection::Io::wantWrite)
            return watch(waiting, io == Connection::Io::wantWrite ? EPOLLOUT : EPOLLIN);
        return close(socket);
    }
    }
}

void FrontDoor::readHead(Waiting &waiting)
{
    Connection &connection = *waiting.connection;
    // Room for the largest head and a small body behind it, and no more.
    const size_t capacity = m_limits.head.maxBytes + m_limits.smallBodyBytes;
    const size_t have = connection.buffered().size();
    const Connection::Io io =
        have < capacity ? connection.receive(capacity - have) : Connection::Io::ready;
    if (!waiting.started && !connection.buffered().empty()) {
        waiting.started = true;
        waiting.deadline = Clock::now() + m_limits.headTimeout;
    }
    if (const std::optional<size_t> end = waiting.scanner.scan(connection.buffered()))
        return checkHead(waiting, *end);
    if (waiting.scanner.tooLarge())
        return answer(waiting, 431, "The request's headers are too large.");
    waitForMore(waiting, io);
}

void FrontDoor::waitForMore(Waiting &waiting, Connection::Io io)
{
    if (io == Connection::Io::closed || io == Connection::Io::failed)
        return close(waiting.connection->socket());
    watch(waiting, io == Connection::Io::wantWrite ? EPOLLOUT : EPOLLIN);
}

void FrontDoor::checkHead(Waiting &waiting, size_t headEnd)
{
    Connection &connection = *waiting.connection;
    RequestHead head = RequestHead::parse(connection.buffered().substr(0, headEnd), m_limits.head);
    connection.client = head.refusal() == 0
        ? m_proxies.clientOf(connection.peer(), head.forwardedFor())
        : connection.peer();
    if (head.refusal() != 0) {
        const int status = head.refusal();
        const std::string reason = head.reason();
        connection.head = std::move(head);
        return answer(waiting, status, reason);
    }
    const bool large = head.contentLength() > m_limits.smallBodyBytes;
    if (BodyLimit limit = m_bodyRule(head); head.contentLength() > limit.bytes) {
        connection.head = std::move(head);
        // Refused before a byte of the body is read: the client learns at once, and nobody
        // can make the service read gigabytes only to refuse them.
        return answer(waiting, 413, limit.refusal);
    }
    // A small body comes whole before a worker sees it: the 100 is said here, and the library
    // is not asked to say it again.
    const bool saysContinue = !large && head.expectsContinue() && head.contentLength() > 0;
    if (!large)
        head.remove("Expect");
    const std::string text = head.text();
    connection.head = std::move(head);
    connection.replaceFront(headEnd, text);
    connection.headBytes = text.size();
    if (large || connection.buffered().size() >= text.size() + connection.head.contentLength())
        return dispatch(waiting);
    if (saysContinue) {
        size_t written = 0;
        const std::string_view proceed = "HTTP/1.1 100 Continue\r\n\r\n";
        if (connection.send(proceed, written) != Connection::Io::ready)
            return close(connection.socket());
    }
    waiting.phase = Phase::body;
    readBody(waiting);
}

void FrontDoor::readBody(Waiting &waiting)
{
    Connection &connection = *waiting.connection;
    const size_t whole = connection.headBytes + size_t(connection.head.contentLength());
    const size_t have = connection.buffered().size();
    const Connection::Io io =
        have < whole ? connection.receive(whole - have) : Connection::Io::ready;
    if (connection.buffered().size() >= whole)
        return dispatch(waiting);
    waitForMore(waiting, io);
}

void FrontDoor::dispatch(Waiting &waiting)
{
    const int socket = waiting.connection->socket();
    if (waiting.events != 0)
        ::epoll_ctl(m_epoll, EPOLL_CTL_DEL, socket, nullptr);
    std::unique_ptr<Connection> connection = std::move(waiting.connection);
    m_waiting.erase(socket);
    ++connection->served;
    m_workers->push(std::move(connection));
}

void FrontDoor::answer(Waiting &waiting, int status, const std::string &detail)
{
    Connection &connection = *waiting.connection;
    const std::string body = "{\"detail\":" + jsonString(detail) + "}";
    std::string text = "HTTP/1.1 " + std::to_string(status) + " " + reasonPhrase(status) +
        "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
        "\r\nConnection: close\r\nCache-Control: no-store\r\n";
    for (const auto &[name, value] : m_answerHeaders)
        text += name + ": " + value + "\r\n";
    waiting.answer = text + "\r\n" + body;
    waiting.answerSent = 0;
    waiting.phase = Phase::answering;
    waiting.deadline = Clock::now() + drainTime;
    if (m_log.answer) {
        const bool parsed = !connection.head.method().empty();
        const auto [method, path] = parsed
            ? std::pair {connection.head.method(), connection.head.path()}
            : firstWords(connection.buffered());
        m_log.answer(connection.client, method, path, status);
    }
    continueAnswer(waiting);
}

void FrontDoor::continueAnswer(Waiting &waiting)
{
    Connection &connection = *waiting.connection;
    size_t written = 0;
    const Connection::Io io =
        connection.send(std::string_view(waiting.answer).substr(waiting.answerSent), written);
    waiting.answerSent += written;
    if (io == Connection::Io::ready)
        return drain(waiting);
    if (io == Connection::Io::wantRead || io == Connection::Io::wantWrite)
        return watch(waiting, io == Connection::Io::wantWrite ? EPOLLOUT : EPOLLIN);
    close(connection.socket());
}

void FrontDoor::drain(Waiting &waiting)
{
    waiting.connection->shutdownSending();
    waiting.connection->consume(waiting.connection->buffered().size());
    waiting.phase = Phase::draining;
    waiting.deadline = Clock::now() + drainTime;
    watch(waiting, EPOLLIN);
}

void FrontDoor::sweep()
{
    const auto now = Clock::now();
    if (now - m_lastSweep < sweepInterval)
        return;
    if (m_listenerPaused) {
        // Listening again after running out of descriptors.
        m_listenerPaused = false;
        epoll_event event {};
        event.events = EPOLLIN;
        event.data.fd = m_listener;
        ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_listener, &event);
    }
    m_lastSweep = now;
    std::vector<int> expired;
    for (const auto &[socket, waiting] : m_waiting)
        if (waiting->deadline <= now)
            expired.push_back(socket);
    for (const int socket : expired) {
        Waiting &waiting = *m_waiting.at(socket);
        const bool midRequest =
            (waiting.phase == Phase::head && waiting.started) || waiting.phase == Phase::body;
        if (midRequest)
            answer(waiting, 408, "The request took too long to arrive.");
        else
            close(socket);
    }
    if (m_refusedAtDoor > 0 && now - m_lastRefusalNotice >= std::chrono::minutes(1)) {
        if (m_log.notice)
            m_log.notice("refused " + std::to_string(m_refusedAtDoor) +
                         " connection(s) over the limits on connections in the last minute");
        m_refusedAtDoor = 0;
        m_lastRefusalNotice = now;
    }
}

void FrontDoor::serveOnWorker(std::unique_ptr<Connection> connection)
{
    {
        std::scoped_lock lock(m_servingMutex);
        m_serving.push_back(connection->socket());
    }
    const bool closeAfter = !connection->head.keepAlive() ||
        connection->served >= m_limits.requestsPerConnection || m_stopping;
    After after = After::keep;
    {
        RequestStream stream(*connection, connection->headBytes, m_limits.ioTimeout);
        m_serve(stream, closeAfter);
        if (!stream.bodyRead())
            after = After::drain; // refused before its body: the client may still be sending
        else if (!stream.finishedCleanly())
            after = After::close;
        else if (closeAfter)
            after = After::drain;
    }
    {
        std::scoped_lock lock(m_servingMutex);
        std::erase(m_serving, connection->socket());
    }
    handBack(std::move(connection), after);
}

void FrontDoor::handBack(std::unique_ptr<Connection> connection, After after)
{
    {
        std::scoped_lock lock(m_handedBackMutex);
        m_handedBack.emplace_back(std::move(connection), after);
    }
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(m_wake, &one, sizeof one);
}

void FrontDoor::takeBack()
{
    std::vector<std::pair<std::unique_ptr<Connection>, After>> handedBack;
    {
        std::scoped_lock lock(m_handedBackMutex);
        handedBack.swap(m_handedBack);
    }
    for (auto &[connection, after] : handedBack)
        resume(std::move(connection), after);
}

void FrontDoor::resume(std::unique_ptr<Connection> connection, After after)
{
    connection->releaseSpareMemory();
    connection->head = RequestHead();
    connection->headBytes = 0;
    connection->client = connection->peer();
    const int socket = connection->socket();
    auto waiting = std::make_unique<Waiting>(std::move(connection), m_limits.head);
    Waiting &entry = *waiting;
    m_waiting.emplace(socket, std::move(waiting));
    if (after == After::close || m_stopping)
        return close(socket);
    if (after == After::drain)
        return drain(entry);
    entry.phase = Phase::head;
    entry.started = false;
    entry.deadline = Clock::now() + m_limits.keepAliveTimeout;
    // A request sent right behind the last one may be here already.
    readHead(entry);
}
