#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <sys/types.h>
#include <unistd.h>

// Small helpers shared by the benchmark drivers: medians, timing, and the closing verdict line
// that scripts/bench reads.
namespace bench {

inline double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const size_t mid = values.size() / 2;
    return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

inline double secondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// CPU seconds (user and system) read from a /proc stat file: a process's, or one thread's
// (/proc/self/task/TID/stat).
inline double cpuSecondsFrom(const std::string &path)
{
    std::ifstream file(path);
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    // The command name may hold blanks; the fields after it are blank-separated.
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    double ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i >= 14)
            ticks += std::stod(field);
    }
    return ticks / double(sysconf(_SC_CLK_TCK));
}

// A line of /proc/self/status in megabytes, such as "VmRSS" or "RssAnon"; 0 when missing.
inline double statusMegabytes(const std::string &key)
{
    std::ifstream file("/proc/self/status");
    std::string line;
    while (std::getline(file, line)) {
        if (line.rfind(key + ':', 0) == 0)
            return std::stod(line.substr(key.size() + 1)) / 1024.0;
    }
    return 0;
}

// CPU seconds of the process `pid` (0: this one).
inline double cpuSeconds(pid_t pid)
{
    return cpuSecondsFrom("/proc/" + (pid ? std::to_string(pid) : std::string("self")) + "/stat");
}

// CPU seconds so far of each of this process's threads, by thread name (threads of one name
// summed).
inline std::map<std::string, double> threadCpuSeconds()
{
    std::map<std::string, double> out;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(entry.path() / "comm");
        std::string name;
        std::getline(comm, name);
        // The scheduler's own count, in nanoseconds, where there is one: the clock ticks of
        // `stat` are too coarse for the few milliseconds a save costs a thread.
        std::ifstream schedstat(entry.path() / "schedstat");
        double nanoseconds = -1;
        if (schedstat >> nanoseconds)
            out[name] += nanoseconds / 1e9;
        else
            out[name] += cpuSecondsFrom(entry.path() / "stat");
    }
    return out;
}

// /proc/loadavg as it reads now: the machine is shared, and every figure is read against it.
inline std::string loadAverage()
{
    std::ifstream file("/proc/loadavg");
    std::string line;
    std::getline(file, line);
    return line;
}

// Points HOME and the XDG folders at a fresh temporary folder, so a benchmark never reads or
// writes the user's own settings or clips.
inline std::string isolateHome()
{
    char pattern[] = "/tmp/vantrel-bench-XXXXXX";
    const char *dir = mkdtemp(pattern);
    if (!dir)
        return {};
    const std::string home = dir;
    setenv("HOME", home.c_str(), 1);
    setenv("XDG_CONFIG_HOME", (home + "/.config").c_str(), 1);
    setenv("XDG_STATE_HOME", (home + "/.local/state").c_str(), 1);
    return home;
}

// The last line of every benchmark: "NAME: <figure> (target <target>) PASS|FAIL".
inline int verdict(const std::string &name, const std::string &figure, const std::string &target,
                   bool pass)
{
    std::printf("%s: %s (target %s) %s\n", name.c_str(), figure.c_str(), target.c_str(),
                pass ? "PASS" : "FAIL");
    std::fflush(stdout);
    return pass ? 0 : 1;
}

} // namespace bench
