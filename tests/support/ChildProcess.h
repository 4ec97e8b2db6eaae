#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// A program that a test or benchmark starts and owns: its standard output comes back through a
// pipe, its standard error goes to a file (or nowhere), and the destructor ends it (SIGTERM, then
// SIGKILL) and reaps it; should this process die first, the kernel kills the child. Only this
// process's own children are ever signalled.
class ChildProcess
{
public:
    using Environment = std::vector<std::pair<std::string, std::string>>;

    // Starts `argv` (argv[0] searched in PATH) with `environment` added to ours. `stderrPath`
    // empty: standard error is discarded. A program that cannot start exits with status 127.
    explicit ChildProcess(const std::vector<std::string> &argv, const Environment &environment = {},
                          const std::string &stderrPath = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    pid_t pid() const { return m_pid; }

    // The next line of standard output, without its line feed; none when the time ran out or
    // the output ended.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout);

    void signal(int number);
    // Waits for the exit and returns the exit status (128 + signal when killed); -1 on timeout.
    int wait(std::chrono::milliseconds timeout = std::chrono::seconds(30));
    bool running();

    // Runs a command to completion and returns its exit status (-1 on timeout).
    static int run(const std::vector<std::string> &argv, const Environment &environment = {},
                   std::chrono::milliseconds timeout = std::chrono::seconds(30));

private:
    pid_t m_pid = -1;
    int m_stdout = -1;
    std::string m_pending;
    std::optional<int> m_status;
};
