#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;

// What an attacker does to the service, in small pieces the attack tests (and the
// service_attack tool that measures them by hand) put together: connections that say nothing or
// trickle, requests no HTTP library would send, and the measures of what it costs the service.

// A connection to the service on 127.0.0.1 from a source address of the caller's choice (any
// 127.x.y.z works on Linux without set-up, so one test can be several clients), speaking TLS
// or staying silent before the handshake.
class RawConnection
{
public:
    enum class Start { tcpOnly, tls };

    // The TLS handshake waits up to `handshakeTimeout` for the server.
    RawConnection(int port, Start start, const std::string &source = "127.0.0.1",
                  std::chrono::milliseconds handshakeTimeout = std::chrono::seconds(10));
    ~RawConnection();
    RawConnection(const RawConnection &) = delete;
    RawConnection &operator=(const RawConnection &) = delete;

    // Connected (and, with TLS, through the handshake).
    bool open() const { return m_open; }
    // False when it could not send it all: the connection failed, or an answer came first.
    bool send(const std::string &bytes);
    // What arrives until the server closes the connection or `timeout` passes.
    std::string receive(std::chrono::milliseconds timeout);
    // The status of the first answer that arrives within `timeout`; 0 when none does.
    int answerStatus(std::chrono::milliseconds timeout);
    // True when the server closes the connection (or resets it) within `timeout`.
    bool closedByServer(std::chrono::milliseconds timeout);

private:
    bool wait(short events, std::chrono::steady_clock::time_point deadline);
    // >0 bytes, 0 closed, -1 nothing yet
    ssize_t readSome(char *buffer, size_t size);

    int m_socket = -1;
    SSL_CTX *m_context = nullptr;
    SSL *m_ssl = nullptr;
    bool m_open = false;
    std::string m_received;
};

// A request head with `lines` header lines of its own, as the header bomb sends it.
std::string headWithHeaders(const std::string &method, const std::string &target, int lines,
                            size_t valueBytes);

// The time a plain HTTPS GET of `path` takes to be answered, connection and handshake included;
// `patience` when no answer came by then (or the connection was refused or dropped).
std::chrono::milliseconds timedGet(int port, const std::string &path,
                                   std::chrono::milliseconds patience);

// The longest a GET of `path` waited, asked again and again from another thread while `attack`
// runs (and once more right after it).
std::chrono::milliseconds worstStallDuring(int port, const std::string &path,
                                           std::chrono::milliseconds patience,
                                           const std::function<void()> &attack);

// A process's resident memory now and at its peak, in MiB (from /proc).
double residentMiB(pid_t pid);
double peakResidentMiB(pid_t pid);

// A one-frame MP4 of `size` from ffmpeg: a PNG frame ("png"), or H.264 ("h264"). Raw input from
// /dev/zero keeps even a 16000 × 16000 frame cheap to make.
std::string makeFrameClip(const std::string &folder, const std::string &name,
                          const std::string &codec, const std::string &size,
                          const std::string &pixelFormat);
// Rewrites the picture size an MP4's H.264 sample entry declares, leaving the stream as it is.
void declareSize(std::string &mp4, int width, int height);

// One line per figure on standard output, for the closing notes of the work they measure.
void reportFigure(const std::string &what, double value, const std::string &unit);
