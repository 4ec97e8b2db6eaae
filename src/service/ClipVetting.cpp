#include "service/ClipVetting.h"

#include "service/CommandLine.h"
#include "service/FileStore.h"
#include "service/VettingHelper.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

// A report line and a poster are far below this; a child writing more is not well.
constexpr size_t maxReportBytes = 16 << 20;

std::string ownExecutable()
{
    char path[PATH_MAX];
    const ssize_t size = ::readlink("/proc/self/exe", path, sizeof path - 1);
    return size > 0 ? std::string(path, size_t(size)) : std::string();
}

// The address space the process has mapped now, from the kernel's own count.
uint64_t mappedBytes()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmSize:", 0) == 0)
            return std::strtoull(line.c_str() + 7, nullptr, 10) * 1024;
    return 0;
}

// Writes the whole buffer to `fd`; false when the reader is gone.
bool writeOut(int fd, const char *data, size_t size)
{
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        data += written;
        size -= size_t(written);
    }
    return true;
}

// The poster as the child makes it: bytes gathered in memory, written out after the report.
class MemoryPending : public PendingFile
{
public:
    void write(const char *data, size_t size) override { m_bytes.append(data, size); }
    void finish() override { }
    uint64_t size() const override { return m_bytes.size(); }
    const std::string &path() const override { return m_path; }
    const std::string &bytes() const { return m_bytes; }

private:
    std::string m_bytes;
    std::string m_path;
};

struct Spawned
{
    pid_t pid = -1;
    int output = -1; // the read end of the child's standard output
};

// Starts the child with `input` (or nothing) as its standard input.
Spawned spawn(const std::vector<std::string> &argv, int input = -1)
{
    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0)
        return {};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (input >= 0)
        posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    else
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
    // The worker that spawns has every signal blocked; the child starts with none blocked and
    // the default actions, so that it can be stopped like any program.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    sigset_t defaults;
    sigemptyset(&defaults);
    for (const int number : {SIGPIPE, SIGTERM, SIGINT, SIGHUP})
        sigaddset(&defaults, number);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    std::vector<char *> args;
    for (const std::string &arg : argv)
        args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    Spawned spawned;
    if (posix_spawn(&spawned.pid, args[0], &actions, &attributes, args.data(), environ) != 0)
        spawned.pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    ::close(pipe[1]);
    if (spawned.pid < 0) {
        ::close(pipe[0]);
        return {};
    }
    spawned.output = pipe[0];
    return spawned;
}

// Reads the child's whole output until it closes it or the time is up; false on the latter.
bool readAll(int fd, std::chrono::steady_clock::time_point deadline, std::string &output)
{
    char block[64 * 1024];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        pollfd entry {fd, POLLIN, 0};
        const int ready = ::poll(&entry, 1, int(left.count()));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return false;
        const ssize_t got = ::read(fd, block, sizeof block);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return true;
        if (output.size() + size_t(got) > maxReportBytes)
            return false;
        output.append(block, size_t(got));
    }
}

} // namespace

namespace {

struct ChildRun
{
    bool started = false;
    bool ended = false;
    int status = 0;
    std::string output;
};

// Runs the child on `file` (a path; "/proc/self/fd/0" for the standard input) and reads all it
// writes, within the budget's time.
ChildRun runChild(const std::string &file, const ClipVetting::Budget &budget, bool poster,
                  int input)
{
    static const std::string executable = ownExecutable();
    ChildRun run;
    if (executable.empty())
        return run;
    std::vector<std::string> argv {executable,
                                   "inspect-clip",
                                   file,
                                   "--memory",
                                   std::to_string(budget.memoryBytes),
                                   "--seconds",
                                   std::to_string(budget.seconds),
                                   "--width",
                                   std::to_string(budget.bounds.maxWidth),
                                   "--height",
                                   std::to_string(budget.bounds.maxHeight)};
    if (!poster)
        argv.push_back("--no-poster");
    const Spawned child = spawn(argv, input);
    if (child.pid < 0)
        return run;
    run.started = true;
    run.ended = readAll(child.output,
                        std::chrono::steady_clock::now() + std::chrono::seconds(budget.seconds + 5),
                        run.output);
    ::close(child.output);
    if (!run.ended)
        ::kill(child.pid, SIGKILL);
    while (::waitpid(child.pid, &run.status, 0) < 0 && errno == EINTR) { }
    return run;
}

} // namespace

ClipVetting ClipVetting::check(const std::string &path, const Budget &budget)
{
    ClipVetting result;
    result.probe.problem = "The video could not be checked: it may be damaged.";
    result.childFailed = true;
    ChildRun run;
    // A child of the helper when there is one (a fork, not the executable started afresh).
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::seconds(budget.seconds + 5);
        run.started = VettingHelper::inspect(fd, budget, false, deadline, run.output, run.ended);
        ::close(fd);
    }
    if (!run.started)
        run = runChild(path, budget, false, -1);
    if (!run.started)
        return result;
    result.childFailed = false;
    // "ok WIDTH HEIGHT MILLISECONDS\n", or "refused SENTENCE\n".
    const size_t lineEnd = run.output.find('\n');
    if (lineEnd == std::string::npos)
        return result;
    std::istringstream report(run.output.substr(0, lineEnd));
    std::string word;
    report >> word;
    if (word == "refused") {
        std::getline(report >> std::ws, result.probe.problem);
        return result;
    }
    ClipProbeResult probe;
    if (word != "ok" || !(report >> probe.width >> probe.height >> probe.durationMs))
        return result;
    probe.isMp4 = true;
    result.probe = probe;
    return result;
}

std::optional<std::string> ClipVetting::makePoster(int fd, const Budget &budget)
{
    // The child opens the file through a descriptor's name, which reaches the file even once
    // its pending name is gone. A child of the helper's exit status is not known here: its
    // poster counts when it is whole (a JPEG ends with its end-of-image marker).
    ChildRun run;
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(budget.seconds + 5);
    bool whole = false;
    if (VettingHelper::inspect(fd, budget, true, deadline, run.output, run.ended)) {
        whole =
            run.output.size() > 2 && run.output.compare(run.output.size() - 2, 2, "\xff\xd9") == 0;
    } else {
        run = runChild("/proc/self/fd/0", budget, true, fd);
        whole = WIFEXITED(run.status) && WEXITSTATUS(run.status) == 0;
    }
    const size_t lineEnd = run.output.find('\n');
    // A child that ran out of memory or crashed while decoding leaves the clip without a
    // poster, as a clip whose first picture does not decode has none.
    if (!run.ended || !whole || lineEnd == std::string::npos || run.output.rfind("ok ", 0) != 0 ||
        lineEnd + 1 == run.output.size())
        return std::nullopt;
    return run.output.substr(lineEnd + 1);
}

int ClipVetting::child(const std::vector<std::string> &arguments)
{
    const CommandLine line(arguments, {"memory", "seconds", "width", "height"}, {"no-poster"});
    if (line.words().size() != 1)
        throw CommandLine::Error("Usage: vantrel-service inspect-clip FILE --memory BYTES "
                                 "--seconds S --width W --height H");
    const uint64_t memory = CommandLine::parseSize(line.required("memory"), "memory");
    const int seconds = CommandLine::parseInteger(line.required("seconds"), "seconds", 1, 3600);
    Budget budget;
    budget.memoryBytes = memory;
    budget.seconds = seconds;
    budget.bounds.maxWidth = CommandLine::parseInteger(line.required("width"), "width", 16, 65536);
    budget.bounds.maxHeight =
        CommandLine::parseInteger(line.required("height"), "height", 16, 65536);
    return inspect(line.words()[0], budget, !line.flag("no-poster"), STDOUT_FILENO);
}

int ClipVetting::inspect(const std::string &file, const Budget &budget, bool poster, int output)
{
    // Limits first, before a byte of the file is read. The address space is counted from what
    // the process has mapped already, so the same budget holds whatever the build maps at start.
    const rlimit space {mappedBytes() + budget.memoryBytes, mappedBytes() + budget.memoryBytes};
    const rlimit cpu {rlim_t(budget.seconds), rlim_t(budget.seconds) + 1};
    const rlimit noCore {0, 0};
    if (::setrlimit(RLIMIT_AS, &space) != 0 || ::setrlimit(RLIMIT_CPU, &cpu) != 0 ||
        ::setrlimit(RLIMIT_CORE, &noCore) != 0)
        return 1;
    ClipProbe::silenceLibraryLog();

    const ClipProbeResult probe = ClipProbe::probe(file, budget.bounds);
    if (!probe.isMp4) {
        const std::string report = "refused " + probe.problem + "\n";
        return writeOut(output, report.data(), report.size()) ? 0 : 1;
    }
    // The report goes out before anything is decoded: whatever happens to the decoder, the
    // server knows the file itself passed.
    const std::string report = "ok " + std::to_string(probe.width) + " " +
        std::to_string(probe.height) + " " + std::to_string(probe.durationMs) + "\n";
    if (!writeOut(output, report.data(), report.size()))
        return 1;
    if (!poster)
        return 0;
    MemoryPending jpeg;
    if (!ClipProbe::writePoster(file, jpeg, budget.bounds))
        return 2;
    return writeOut(output, jpeg.bytes().data(), jpeg.bytes().size()) ? 0 : 1;
}
