#include "service/AttackTools.h"

#include "support/ChildProcess.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

RawConnection::RawConnection(int port, Start start, const std::string &source,
                             milliseconds handshakeTimeout)
{
    // A server that closes on the sender (as it should, on a refusal) must not end the test.
    std::signal(SIGPIPE, SIG_IGN);
    m_socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_socket < 0)
        return;
    sockaddr_in from {};
    from.sin_family = AF_INET;
    ::inet_pton(AF_INET, source.c_str(), &from.sin_addr);
    sockaddr_in to {};
    to.sin_family = AF_INET;
    to.sin_port = htons(uint16_t(port));
    ::inet_pton(AF_INET, "127.0.0.1", &to.sin_addr);
    if (::bind(m_socket, reinterpret_cast<sockaddr *>(&from), sizeof from) != 0 ||
        ::connect(m_socket, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0)
        return;
    if (start == Start::tcpOnly) {
        m_open = true;
        return;
    }
    // The handshake with a deadline of its own: a server that never answers must not hang the
    // test. (The attack is on the server; its certificate is not checked.)
    timeval wait {handshakeTimeout.count() / 1000, (handshakeTimeout.count() % 1000) * 1000};
    ::setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    ::setsockopt(m_socket, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
    m_context = SSL_CTX_new(TLS_client_method());
    m_ssl = m_context ? SSL_new(m_context) : nullptr;
    if (!m_ssl || SSL_set_fd(m_ssl, m_socket) != 1)
        return;
    SSL_set_tlsext_host_name(m_ssl, "localhost");
    m_open = SSL_connect(m_ssl) == 1;
    // From here on nothing blocks: a read finds what has come (a session ticket alone is not
    // an answer) and every wait is a poll with a deadline.
    ::fcntl(m_socket, F_SETFL, ::fcntl(m_socket, F_GETFL) | O_NONBLOCK);
}

RawConnection::~RawConnection()
{
    if (m_ssl)
        SSL_free(m_ssl);
    if (m_context)
        SSL_CTX_free(m_context);
    if (m_socket >= 0)
        ::close(m_socket);
}

bool RawConnection::send(const std::string &bytes)
{
    if (!m_open)
        return false;
    size_t sent = 0;
    char answer[16384];
    while (sent < bytes.size()) {
        // As a browser does, a sender stops when the server has answered already (a refusal):
        // the answer is kept, the rest is never sent.
        pollfd entry {m_socket, POLLIN, 0};
        if ((m_ssl && SSL_has_pending(m_ssl)) || ::poll(&entry, 1, 0) > 0) {
            const ssize_t got = readSome(answer, sizeof answer);
            if (got > 0)
                m_received.append(answer, size_t(got));
            if (got >= 0)
                return false;
        }
        const size_t left = std::min(bytes.size() - sent, size_t(64) << 10);
        const ssize_t written = m_ssl ? SSL_write(m_ssl, bytes.data() + sent, int(left))
                                      : ::send(m_socket, bytes.data() + sent, left, MSG_NOSIGNAL);
        if (written > 0) {
            sent += size_t(written);
            continue;
        }
        const bool later = m_ssl ? SSL_get_error(m_ssl, int(written)) == SSL_ERROR_WANT_WRITE ||
                SSL_get_error(m_ssl, int(written)) == SSL_ERROR_WANT_READ
                                 : errno == EAGAIN || errno == EWOULDBLOCK;
        // The same bytes are offered again once the socket takes more (as OpenSSL requires).
        if (!later || !wait(POLLOUT, Clock::now() + std::chrono::seconds(10)))
            return false;
    }
    return true;
}

bool RawConnection::wait(short events, Clock::time_point deadline)
{
    // Bytes OpenSSL holds already (of a record read with another) never wake poll().
    if ((events & POLLIN) && m_ssl && SSL_has_pending(m_ssl))
        return true;
    const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
    // Looks once even when the time is up: what has arrived already counts.
    pollfd entry {m_socket, events, 0};
    return ::poll(&entry, 1, int(std::max<long long>(left, 0))) > 0;
}

ssize_t RawConnection::readSome(char *buffer, size_t size)
{
    if (m_ssl) {
        ERR_clear_error();
        const int got = SSL_read(m_ssl, buffer, int(size));
        if (got > 0)
            return got;
        const int error = SSL_get_error(m_ssl, got);
        return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE ? -1 : 0;
    }
    const ssize_t got = ::recv(m_socket, buffer, size, MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return -1;
    return std::max<ssize_t>(got, 0);
}

std::string RawConnection::receive(milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    char buffer[16384];
    while (m_socket >= 0 && wait(POLLIN, deadline)) {
        const ssize_t got = readSome(buffer, sizeof buffer);
        if (got == 0)
            break;
        if (got > 0)
            m_received.append(buffer, size_t(got));
    }
    return m_received;
}

int RawConnection::answerStatus(milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    char buffer[16384];
    while (m_received.find("\r\n") == std::string::npos && wait(POLLIN, deadline)) {
        const ssize_t got = readSome(buffer, sizeof buffer);
        if (got == 0)
            break;
        if (got > 0)
            m_received.append(buffer, size_t(got));
    }
    if (m_received.rfind("HTTP/1.", 0) != 0 || m_received.size() < 12)
        return 0;
    return std::atoi(m_received.c_str() + 9);
}

bool RawConnection::closedByServer(milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    char buffer[16384];
    while (wait(POLLIN, deadline)) {
        const ssize_t got = readSome(buffer, sizeof buffer);
        if (got == 0)
            return true;
        if (got > 0)
            m_received.append(buffer, size_t(got));
    }
    return false;
}

std::string headWithHeaders(const std::string &method, const std::string &target, int lines,
                            size_t valueBytes)
{
    std::string head = method + " " + target + " HTTP/1.1\r\nHost: localhost\r\n";
    head.reserve(head.size() + size_t(lines) * (valueBytes + 16));
    for (int i = 0; i < lines; ++i)
        head += "X-Filler-" + std::to_string(i) + ": " + std::string(valueBytes, 'x') + "\r\n";
    return head + "\r\n";
}

milliseconds timedGet(int port, const std::string &path, milliseconds patience)
{
    const auto start = Clock::now();
    RawConnection connection(port, RawConnection::Start::tls, "127.0.0.1", patience);
    if (!connection.open() ||
        !connection.send("GET " + path +
                         " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n") ||
        connection.answerStatus(patience) != 200)
        return patience;
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
}

milliseconds worstStallDuring(int port, const std::string &path, milliseconds patience,
                              const std::function<void()> &attack)
{
    std::atomic<bool> attacking {true};
    milliseconds worst {0};
    std::thread victim([&] {
        do {
            worst = std::max(worst, timedGet(port, path, patience));
            std::this_thread::sleep_for(milliseconds(50));
        } while (attacking);
    });
    attack();
    attacking = false;
    victim.join();
    return std::max(worst, timedGet(port, path, patience));
}

namespace {

double statusMiB(pid_t pid, const std::string &field)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind(field, 0) == 0)
            return std::strtod(line.c_str() + field.size(), nullptr) / 1024.0;
    return 0;
}

} // namespace

double residentMiB(pid_t pid)
{
    return statusMiB(pid, "VmRSS:");
}

double peakResidentMiB(pid_t pid)
{
    return statusMiB(pid, "VmHWM:");
}

std::string makeFrameClip(const std::string &folder, const std::string &name,
                          const std::string &codec, const std::string &size,
                          const std::string &pixelFormat)
{
    const std::string path = folder + "/" + name;
    std::vector<std::string> argv {"ffmpeg",   "-nostdin", "-v",        "error",     "-y", "-f",
                                   "rawvideo", "-pix_fmt", pixelFormat, "-s",        size, "-r",
                                   "1",        "-i",       "/dev/zero", "-frames:v", "1"};
    if (codec == "h264")
        argv.insert(argv.end(), {"-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"});
    else
        argv.insert(argv.end(), {"-c:v", codec});
    argv.insert(argv.end(), {"-f", "mp4", path});
    if (ChildProcess::run(argv, {}, std::chrono::seconds(120)) != 0)
        throw std::runtime_error("ffmpeg could not make " + name);
    return path;
}

void declareSize(std::string &mp4, int width, int height)
{
    // The sample entry follows its table's header ("stsd", version and flags, entry count):
    // size, "avc1", 6 reserved bytes, the data reference, 16 bytes of fields, then width and
    // height as 16-bit numbers.
    const size_t table = mp4.find("stsd");
    const size_t entry = table == std::string::npos ? table : mp4.find("avc1", table);
    if (entry == std::string::npos || entry + 32 > mp4.size())
        throw std::runtime_error("no H.264 sample entry in the file");
    const size_t at = entry + 4 + 6 + 2 + 16;
    mp4[at] = char(width >> 8);
    mp4[at + 1] = char(width & 0xff);
    mp4[at + 2] = char(height >> 8);
    mp4[at + 3] = char(height & 0xff);
}

void reportFigure(const std::string &what, double value, const std::string &unit)
{
    std::printf("FIGURE %s: %.1f %s\n", what.c_str(), value, unit.c_str());
    std::fflush(stdout);
}
