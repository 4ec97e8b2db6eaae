#include "service/VettingHelper.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// The server's end of the socket to the helper; -1 without one.
std::atomic<int> helperSocket {-1};

// What the server asks for, with the file and the reply pipe passed alongside.
struct Request
{
    uint64_t memoryBytes;
    int seconds;
    int maxWidth;
    int maxHeight;
    int poster;
};

// A request and its two descriptors, as one message on the socket.
struct Message
{
    explicit Message(Request *request)
        : data {request, sizeof(Request)}
    {
        header.msg_iov = &data;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof control;
    }
    iovec data;
    char control[CMSG_SPACE(2 * sizeof(int))] = {};
    msghdr header {};
};

bool sendRequest(int socket, Request request, int fd, int reply)
{
    Message message(&request);
    cmsghdr *header = CMSG_FIRSTHDR(&message.header);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(2 * sizeof(int));
    const int fds[2] = {fd, reply};
    std::memcpy(CMSG_DATA(header), fds, sizeof fds);
    ssize_t sent = 0;
    do
        sent = ::sendmsg(socket, &message.header, MSG_NOSIGNAL);
    while (sent < 0 && errno == EINTR);
    return sent == ssize_t(sizeof request);
}

// The helper's loop: a child for each request, until the server goes.
[[noreturn]] void serveRequests(int socket)
{
    // Children are not waited for: their reports go to the server, and they go on their own.
    std::signal(SIGCHLD, SIG_IGN);
    for (;;) {
        Request request {};
        Message message(&request);
        const ssize_t got = ::recvmsg(socket, &message.header, MSG_CMSG_CLOEXEC);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            ::_exit(0);
        const cmsghdr *header = CMSG_FIRSTHDR(&message.header);
        if (got != ssize_t(sizeof request) || !header || header->cmsg_type != SCM_RIGHTS ||
            header->cmsg_len != CMSG_LEN(2 * sizeof(int)))
            continue;
        int fds[2];
        std::memcpy(fds, CMSG_DATA(header), sizeof fds);
        const pid_t child = ::fork();
        if (child == 0) {
            ::close(socket);
            std::signal(SIGCHLD, SIG_DFL);
            ClipVetting::Budget budget;
            budget.memoryBytes = request.memoryBytes;
            budget.seconds = request.seconds;
            budget.bounds = {request.maxWidth, request.maxHeight};
            ::_exit(ClipVetting::inspect("/proc/self/fd/" + std::to_string(fds[0]), budget,
                                            request.poster != 0, fds[1]));
        }
        ::close(fds[0]);
        ::close(fds[1]);
    }
}

} // namespace

namespace VettingHelper {

bool start()
{
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0)
        return false;
    const pid_t helper = ::fork();
    if (helper < 0) {
        ::close(pair[0]);
        ::close(pair[1]);
        return false;
    }
    if (helper == 0) {
        // Nothing of the server's but the socket: no listening socket, no lock on the data
        // folder, no connection to a store.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int keep = pair[1];
        for (int fd = 3; fd < 1024; ++fd)
            if (fd != keep)
                ::close(fd);
        serveRequests(keep);
    }
    ::close(pair[1]);
    helperSocket = pair[0];
    return true;
}

bool inspect(int fd, const ClipVetting::Budget &budget, bool poster,
             std::chrono::steady_clock::time_point deadline, std::string &output, bool &ended)
{
    ended = false;
    const int socket = helperSocket.load();
    if (socket < 0)
        return false;
    int reply[2];
    if (::pipe2(reply, O_CLOEXEC) != 0)
        return false;
    const Request request {budget.memoryBytes, budget.seconds, budget.bounds.maxWidth,
                           budget.bounds.maxHeight, poster ? 1 : 0};
    const bool sent = sendRequest(socket, request, fd, reply[1]);
    ::close(reply[1]);
    char block[4096];
    while (sent) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd entry {reply[0], POLLIN, 0};
        const int ready = left.count() > 0 ? ::poll(&entry, 1, int(left.count())) : 0;
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            break;
        const ssize_t got = ::read(reply[0], block, sizeof block);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0) {
            ended = true;
            break;
        }
        // A report line and a poster are far below this; a child writing more is not well.
        if (output.size() + size_t(got) > (16 << 20))
            break;
        output.append(block, size_t(got));
    }
    ::close(reply[0]);
    return sent;
}

} // namespace VettingHelper
