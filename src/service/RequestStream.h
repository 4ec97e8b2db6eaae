#pragma once

#include "service/Connection.h"

#include <httplib.h>

#include <chrono>

// One request's view of its connection, as the HTTP library reads and writes it: the checked
// head first (from the connection's buffer), then the body and the answer over the socket.
// Reads fill the buffer in large blocks (up to 256 KiB at a time), however little the library
// asks for at once. It counts what the library took, so the front door knows whether the body
// was read to its end (and the connection can serve another request) or not.
class RequestStream : public httplib::Stream
{
public:
    // `headBytes` is the size of the head at the front of the connection's buffer; `timeout`
    // bounds each wait for the socket.
    RequestStream(Connection &connection, size_t headBytes, std::chrono::milliseconds timeout);
    ~RequestStream() override;

    // The stream of the request this thread is serving, if any: the routes' rules reach it
    // through here (the library hands them only the request).
    static RequestStream *current();

    // True once the head and the whole body were read and nothing failed.
    bool finishedCleanly() const;
    bool bodyRead() const { return m_taken >= m_requestBytes; }
    const Connection &connection() const { return m_connection; }

    // The next bytes of the body, straight from the connection's buffer (filled in a large
    // block when empty), for a route that reads a large body itself instead of through the
    // library's reader; valid until the next call. Empty at the body's end, or when the
    // connection ended or stalled (failed() tells).
    std::string_view takeBodyBlock();
    bool failed() const { return m_failed; }

    bool is_readable() const override;
    bool is_writable() const override;
    ssize_t read(char *ptr, size_t size) override;
    ssize_t write(const char *ptr, size_t size) override;
    void get_remote_ip_and_port(std::string &ip, int &port) const override;
    void get_local_ip_and_port(std::string &ip, int &port) const override;
    socket_t socket() const override;

private:
    Connection &m_connection;
    const std::chrono::milliseconds m_timeout;
    const uint64_t m_requestBytes;
    uint64_t m_taken = 0;
    bool m_failed = false;
    RequestStream *m_outer;
};
