#pragma once

#include "service/RequestHead.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;

// One client's connection: its socket (always non-blocking), its TLS session when the service
// speaks TLS, and what has been received but not yet used. It belongs to one thread at a time:
// the front door's loop while it waits for a request, one worker while a request is served;
// they hand it over through locked queues, never share it.
class Connection
{
public:
    using Clock = std::chrono::steady_clock;

    // How a step of non-blocking I/O went.
    enum class Io { ready, wantRead, wantWrite, closed, failed };

    // Takes over the accepted socket; `tls` null for plain HTTP. Throws std::runtime_error when
    // TLS cannot be set up for it (out of memory).
    Connection(int socket, std::string peer, int peerPort, SSL_CTX *tls);
    ~Connection();
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    int socket() const { return m_socket; }
    // The address the connection comes from, in one spelling (see TrustedProxies::normalized).
    const std::string &peer() const { return m_peer; }
    int peerPort() const { return m_peerPort; }
    const std::string &localAddress() const { return m_localAddress; }
    int localPort() const { return m_localPort; }
    bool usesTls() const { return m_ssl != nullptr; }

    // Non-blocking steps, for the loop: the TLS handshake, and reading what has arrived (at
    // most `maxBytes` more into the buffer).
    Io handshake();
    Io receive(size_t maxBytes);
    // Writes what it can of `data` without waiting; `written` says how much.
    Io send(std::string_view data, size_t &written);
    // Says goodbye in TLS (when it can without waiting) and shuts the sending side, so that the
    // client reads the last answer before the connection closes.
    void shutdownSending();

    // Waiting steps, for workers: read into the buffer or write everything, each wait for the
    // socket at most `timeout`. False when the connection ended, failed or stalled that long.
    bool receiveWaiting(size_t maxBytes, std::chrono::milliseconds timeout);
    bool sendWaiting(std::string_view data, std::chrono::milliseconds timeout);
    // Waits until the socket can take more, or the time is up.
    bool waitWritable(std::chrono::milliseconds timeout) const;

    // What has been received and not yet used.
    std::string_view buffered() const { return {m_buffer.data() + m_begin, m_end - m_begin}; }
    void consume(size_t size);
    // Puts `text` in place of the first `size` buffered bytes (a head in its checked form).
    void replaceFront(size_t size, const std::string &text);
    // Gives back memory a large body needed, once the request is over.
    void releaseSpareMemory();

    // The request being served on the connection, and who it counts against (the client a
    // trusted proxy names, otherwise the peer).
    RequestHead head;
    // The size of that head, in its checked form, at the front of the buffer.
    size_t headBytes = 0;
    std::string client;
    // Requests served on this connection so far.
    int served = 0;

private:
    void makeRoom(size_t size);
    Io waitFor(Io want, std::chrono::milliseconds timeout) const;
    // After a step that could not finish: waits for what it wanted; false when the connection
    // ended, failed or stalled.
    bool waitAfter(Io io, std::chrono::milliseconds timeout) const;
    Io tlsResult(int result) const;

    int m_socket;
    std::string m_peer;
    int m_peerPort;
    std::string m_localAddress;
    int m_localPort = 0;
    SSL *m_ssl = nullptr;
    bool m_handshakeDone = false;
    std::vector<char> m_buffer;
    size_t m_begin = 0;
    size_t m_end = 0;
};
