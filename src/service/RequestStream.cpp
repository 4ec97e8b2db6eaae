#include "service/RequestStream.h"

#include <cstring>

namespace {

constexpr size_t receiveBlockBytes = 256 * 1024;

thread_local RequestStream *currentStream = nullptr;

} // namespace

RequestStream::RequestStream(Connection &connection, size_t headBytes,
                             std::chrono::milliseconds timeout)
    : m_connection(connection)
    , m_timeout(timeout)
    , m_requestBytes(headBytes + connection.head.contentLength())
    , m_outer(currentStream)
{
    currentStream = this;
}

RequestStream::~RequestStream()
{
    currentStream = m_outer;
}

RequestStream *RequestStream::current()
{
    return currentStream;
}

bool RequestStream::finishedCleanly() const
{
    return !m_failed && bodyRead();
}

bool RequestStream::is_readable() const
{
    return !m_connection.buffered().empty() || !m_failed;
}

bool RequestStream::is_writable() const
{
    return !m_failed && m_connection.waitWritable(m_timeout);
}

ssize_t RequestStream::read(char *ptr, size_t size)
{
    // Never past this request: whatever follows belongs to the next one on the connection.
    const uint64_t left = m_requestBytes - std::min(m_taken, m_requestBytes);
    size = size_t(std::min<uint64_t>(size, left));
    if (size == 0)
        return 0;
    if (m_connection.buffered().empty()) {
        const uint64_t wanted = std::max<uint64_t>(left, 1);
        if (!m_connection.receiveWaiting(size_t(std::min<uint64_t>(wanted, receiveBlockBytes)),
                                         m_timeout)) {
            m_failed = true;
            return -1;
        }
    }
    const std::string_view available = m_connection.buffered();
    const size_t count = std::min(size, available.size());
    std::memcpy(ptr, available.data(), count);
    m_connection.consume(count);
    m_taken += count;
    return ssize_t(count);
}

std::string_view RequestStream::takeBodyBlock()
{
    const uint64_t left = m_requestBytes - std::min(m_taken, m_requestBytes);
    if (left == 0 || m_failed)
        return {};
    if (m_connection.buffered().empty() &&
        !m_connection.receiveWaiting(size_t(std::min<uint64_t>(left, receiveBlockBytes)),
                                     m_timeout)) {
        m_failed = true;
        return {};
    }
    const std::string_view available = m_connection.buffered();
    const size_t count = size_t(std::min<uint64_t>(available.size(), left));
    // The bytes stay in the buffer until the next call; consume() only moves its start.
    m_connection.consume(count);
    m_taken += count;
    return available.substr(0, count);
}

ssize_t RequestStream::write(const char *ptr, size_t size)
{
    if (m_failed || !m_connection.sendWaiting({ptr, size}, m_timeout)) {
        m_failed = true;
        return -1;
    }
    return ssize_t(size);
}

void RequestStream::get_remote_ip_and_port(std::string &ip, int &port) const
{
    // The client as the rate limits and the log should see it, a trusted proxy's word included.
    ip = m_connection.client;
    port = m_connection.peerPort();
}

void RequestStream::get_local_ip_and_port(std::string &ip, int &port) const
{
    ip = m_connection.localAddress();
    port = m_connection.localPort();
}

socket_t RequestStream::socket() const
{
    return m_connection.socket();
}
