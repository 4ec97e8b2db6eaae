#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <thread>

extern char **environ;

ChildProcess::ChildProcess(const std::vector<std::string> &argv, const Environment &environment,
                           const std::string &stderrPath)
{
    int pipeFds[2];
    if (argv.empty() || pipe2(pipeFds, O_CLOEXEC) != 0)
        throw std::runtime_error("cannot start a child process");
    // Everything the child needs is prepared before fork: only async-signal-safe calls after.
    std::vector<std::string> envStrings;
    for (char **e = environ; *e; ++e) {
        const std::string entry = *e;
        bool overridden = false;
        for (const auto &[name, value] : environment)
            overridden |= entry.compare(0, name.size() + 1, name + "=") == 0;
        if (!overridden)
            envStrings.push_back(entry);
    }
    for (const auto &[name, value] : environment)
        envStrings.push_back(name + "=" + value);
    std::vector<char *> envp, args;
    for (auto &entry : envStrings)
        envp.push_back(entry.data());
    envp.push_back(nullptr);
    std::vector<std::string> argStrings = argv;
    for (auto &arg : argStrings)
        args.push_back(arg.data());
    args.push_back(nullptr);
    const int errFd = open(stderrPath.empty() ? "/dev/null" : stderrPath.c_str(),
                           O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);

    const pid_t parent = getpid();
    m_pid = fork();
    if (m_pid == 0) {
        setsid(); // its own process group: signals to the test's group do not reach it
        // A test killed by its timeout runs no destructors: take the servers down with it rather
        // than leave them running for ever. (The signal follows the thread that forked.)
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(127);
        dup2(pipeFds[1], 1);
        if (errFd >= 0)
            dup2(errFd, 2);
        int in = open("/dev/null", O_RDONLY);
        dup2(in, 0);
        execvpe(args[0], args.data(), envp.data());
        _exit(127);
    }
    close(pipeFds[1]);
    if (errFd >= 0)
        close(errFd);
    m_stdout = pipeFds[0];
    if (m_pid < 0) {
        close(m_stdout);
        throw std::runtime_error("cannot fork");
    }
}

ChildProcess::~ChildProcess()
{
    if (running()) {
        signal(SIGTERM);
        if (wait(std::chrono::seconds(3)) == -1) {
            signal(SIGKILL);
            wait();
        }
    }
    close(m_stdout);
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const size_t end = m_pending.find('\n');
        if (end != std::string::npos) {
            std::string line = m_pending.substr(0, end);
            m_pending.erase(0, end + 1);
            return line;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return std::nullopt;
        pollfd p {m_stdout, POLLIN, 0};
        if (poll(&p, 1, int(left.count())) <= 0)
            continue;
        char buffer[512];
        const ssize_t n = read(m_stdout, buffer, sizeof buffer);
        if (n <= 0)
            return std::nullopt;
        m_pending.append(buffer, size_t(n));
    }
}

void ChildProcess::signal(int number)
{
    if (m_pid > 0 && !m_status)
        kill(m_pid, number);
}

int ChildProcess::wait(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!m_status) {
        int status = 0;
        const pid_t done = waitpid(m_pid, &status, WNOHANG);
        if (done == m_pid) {
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            break;
        }
        if (done < 0 || std::chrono::steady_clock::now() > deadline)
            return done < 0 ? -2 : -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return *m_status;
}

bool ChildProcess::running()
{
    return m_pid > 0 && wait(std::chrono::milliseconds(0)) == -1;
}

int ChildProcess::run(const std::vector<std::string> &argv, const Environment &environment,
                      std::chrono::milliseconds timeout)
{
    ChildProcess child(argv, environment);
    const int status = child.wait(timeout);
    return status;
}
