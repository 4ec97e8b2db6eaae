#include "service/Connection.h"

#include "service/TrustedProxies.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Below this the buffer is kept between requests; a large body's bigger one is given back.
constexpr size_t keptBufferBytes = 64 * 1024;
constexpr size_t initialBufferBytes = 16 * 1024;

int pollEvents(Connection::Io want)
{
    return want == Connection::Io::wantWrite ? POLLOUT : POLLIN;
}

} // namespace

Connection::Connection(int socket, std::string peer, int peerPort, SSL_CTX *tls)
    : m_socket(socket)
    , m_peer(std::move(peer))
    , m_peerPort(peerPort)
{
    sockaddr_storage local {};
    socklen_t size = sizeof local;
    if (::getsockname(m_socket, reinterpret_cast<sockaddr *>(&local), &size) == 0)
        m_localAddress = TrustedProxies::normalized(local, m_localPort);
    if (tls) {
        m_ssl = SSL_new(tls);
        if (!m_ssl || SSL_set_fd(m_ssl, m_socket) != 1) {
            SSL_free(m_ssl);
            ::close(m_socket);
            throw std::runtime_error("Cannot set up TLS for a connection.");
        }
        SSL_set_accept_state(m_ssl);
    } else {
        m_handshakeDone = true;
    }
}

Connection::~Connection()
{
    SSL_free(m_ssl);
    ::close(m_socket);
}

Connection::Io Connection::tlsResult(int result) const
{
    switch (SSL_get_error(m_ssl, result)) {
    case SSL_ERROR_WANT_READ:
        return Io::wantRead;
    case SSL_ERROR_WANT_WRITE:
        return Io::wantWrite;
    case SSL_ERROR_ZERO_RETURN:
        return Io::closed;
    case SSL_ERROR_SYSCALL:
        // A client that hangs up without TLS's goodbye.
        return errno == 0 || errno == ECONNRESET || errno == EPIPE ? Io::closed : Io::failed;
    default:
        return Io::failed;
    }
}

Connection::Io Connection::handshake()
{
    if (m_handshakeDone)
        return Io::ready;
    // OpenSSL's error queue is per thread; a stale entry would be read as this call's.
    ERR_clear_error();
    errno = 0;
    const int result = SSL_do_handshake(m_ssl);
    if (result == 1) {
        m_handshakeDone = true;
        return Io::ready;
    }
    const Io io = tlsResult(result);
    // A failed handshake is a closed connection as far as anyone waiting on it cares.
    return io == Io::wantRead || io == Io::wantWrite ? io : Io::closed;
}

void Connection::makeRoom(size_t size)
{
    if (m_begin == m_end) {
        m_begin = m_end = 0;
    } else if (m_begin > 0 && m_buffer.size() - m_end < size) {
        std::memmove(m_buffer.data(), m_buffer.data() + m_begin, m_end - m_begin);
        m_end -= m_begin;
        m_begin = 0;
    }
    if (m_buffer.size() - m_end < size)
        m_buffer.resize(m_end + size);
}

Connection::Io Connection::receive(size_t maxBytes)
{
    size_t received = 0;
    Io io = Io::ready;
    while (received < maxBytes) {
        // The buffer grows with what comes, from 16 KiB: a waiting connection with a short
        // head costs little, an upload reads in large blocks.
        const size_t room = std::min(
            {maxBytes - received, std::max(initialBufferBytes, m_end - m_begin), size_t(INT_MAX)});
        makeRoom(room);
        char *into = m_buffer.data() + m_end;
        if (m_ssl) {
            ERR_clear_error();
            errno = 0;
            const int result = SSL_read(m_ssl, into, static_cast<int>(room));
            if (result <= 0) {
                io = tlsResult(result);
                break;
            }
            m_end += size_t(result);
            received += size_t(result);
        } else {
            const ssize_t result = ::recv(m_socket, into, room, 0);
            if (result < 0 && errno == EINTR)
                continue;
            if (result <= 0) {
                io = result == 0                              ? Io::closed
                    : errno == EAGAIN || errno == EWOULDBLOCK ? Io::wantRead
                                                              : Io::failed;
                break;
            }
            m_end += size_t(result);
            received += size_t(result);
        }
    }
    // Bytes that came before the end still count: they are in the buffer.
    return received > 0 ? Io::ready : io;
}

Connection::Io Connection::send(std::string_view data, size_t &written)
{
    written = 0;
    while (written < data.size()) {
        const size_t left = std::min(data.size() - written, size_t(INT_MAX));
        if (m_ssl) {
            ERR_clear_error();
            errno = 0;
            const int result = SSL_write(m_ssl, data.data() + written, static_cast<int>(left));
            if (result <= 0)
                return tlsResult(result);
            written += size_t(result);
        } else {
            const ssize_t result = ::send(m_socket, data.data() + written, left, MSG_NOSIGNAL);
            if (result < 0 && errno == EINTR)
                continue;
            if (result < 0)
                return errno == EAGAIN || errno == EWOULDBLOCK ? Io::wantWrite : Io::failed;
            written += size_t(result);
        }
    }
    return Io::ready;
}

void Connection::shutdownSending()
{
    if (m_ssl && m_handshakeDone) {
        ERR_clear_error();
        SSL_shutdown(m_ssl);
    }
    ::shutdown(m_socket, SHUT_WR);
}

Connection::Io Connection::waitFor(Io want, std::chrono::milliseconds timeout) const
{
    pollfd entry {m_socket, short(pollEvents(want)), 0};
    for (;;) {
        const int result = ::poll(&entry, 1, int(timeout.count()));
        if (result < 0 && errno == EINTR)
            continue;
        if (result <= 0)
            return Io::failed;
        return Io::ready;
    }
}

bool Connection::waitWritable(std::chrono::milliseconds timeout) const
{
    pollfd entry {m_socket, POLLOUT, 0};
    int result = 0;
    do
        result = ::poll(&entry, 1, int(timeout.count()));
    while (result < 0 && errno == EINTR);
    return result > 0 && !(entry.revents & (POLLERR | POLLHUP | POLLNVAL));
}

bool Connection::waitAfter(Io io, std::chrono::milliseconds timeout) const
{
    // Each wait may take the whole timeout: it bounds a stall, not the whole transfer.
    return (io == Io::wantRead || io == Io::wantWrite) && waitFor(io, timeout) == Io::ready;
}

bool Connection::receiveWaiting(size_t maxBytes, std::chrono::milliseconds timeout)
{
    Io io = receive(maxBytes);
    while (io != Io::ready && waitAfter(io, timeout))
        io = receive(maxBytes);
    return io == Io::ready;
}

bool Connection::sendWaiting(std::string_view data, std::chrono::milliseconds timeout)
{
    size_t written = 0;
    Io io = send(data, written);
    while (io != Io::ready && waitAfter(io, timeout)) {
        data.remove_prefix(written);
        io = send(data, written);
    }
    return io == Io::ready;
}

void Connection::consume(size_t size)
{
    m_begin += std::min(size, m_end - m_begin);
    if (m_begin == m_end)
        m_begin = m_end = 0;
}

void Connection::replaceFront(size_t size, const std::string &text)
{
    const std::string rest(buffered().substr(std::min(size, m_end - m_begin)));
    m_begin = m_end = 0;
    makeRoom(text.size() + rest.size());
    std::memcpy(m_buffer.data(), text.data(), text.size());
    std::memcpy(m_buffer.data() + text.size(), rest.data(), rest.size());
    m_end = text.size() + rest.size();
}

void Connection::releaseSpareMemory()
{
    if (m_begin == m_end) {
        // An idle connection keeps no buffer at all.
        std::vector<char>().swap(m_buffer);
        m_begin = m_end = 0;
        return;
    }
    if (m_buffer.size() <= keptBufferBytes || m_end - m_begin > keptBufferBytes)
        return;
    std::vector<char> smaller(buffered().begin(), buffered().end());
    smaller.resize(std::max(smaller.size(), size_t(4096)));
    m_end -= m_begin;
    m_begin = 0;
    m_buffer.swap(smaller);
}
