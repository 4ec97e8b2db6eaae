// bench_update WORK SERVICE RUNS: times an update from the click (the install's first status
// line) to the new copy answering (its "Vantrel 1.2.0" line), against the shell doing the same
// steps. WORK holds releases/ from bench/update.sh; SERVICE is the vantrel-service program.
//
// The program's relaunch pauses one second on purpose (the old copy quits meanwhile); that fixed
// pause is taken out of its figure, since leaving the same second on both sides would only hide
// the difference. Both sides end the same way: the new copy started as a user starts it, until
// it prints its version.
#include "BenchSupport.h"
#include "support/ChildProcess.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

std::string work;
std::string releases;
ChildProcess::Environment environment;

int run(const std::string &command)
{
    return ChildProcess::run({"/bin/sh", "-c", command}, environment, 120s);
}

// Every process running `program`, which only this benchmark's folder holds.
std::vector<pid_t> running(const std::string &program)
{
    std::vector<pid_t> pids;
    for (const auto &entry : fs::directory_iterator("/proc")) {
        std::error_code error;
        const fs::path exe = fs::read_symlink(entry.path() / "exe", error);
        if (!error && exe == program)
            pids.push_back(std::stoi(entry.path().filename()));
    }
    return pids;
}

void stopAll(const std::string &program)
{
    for (const pid_t pid : running(program)) {
        ::kill(pid, SIGTERM);
        ::waitpid(pid, nullptr, 0);
    }
}

// A fresh installed 1.1.3 in WORK/opt/Vantrel, nothing beside it.
std::string freshCopy()
{
    const std::string root = work + "/opt/Vantrel";
    fs::remove_all(work + "/opt");
    fs::create_directories(work + "/opt");
    run("tar -xzf '" + releases + "/Vantrel-1.1.3-linux-x86_64.tar.gz' -C '" + work + "/opt'");
    return root;
}

// Waits for a line containing `text`; the time it came, or none.
std::optional<Clock::time_point> lineWith(ChildProcess &process, const std::string &text,
                                          std::chrono::seconds within = 60s)
{
    const auto end = Clock::now() + within;
    while (Clock::now() < end) {
        const auto line = process.readLine(
            std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()));
        if (!line)
            return std::nullopt;
        if (line->find(text) != std::string::npos)
            return Clock::now();
    }
    return std::nullopt;
}

// The program: the installed old copy starts, finds 1.2.0 at launch and installs it.
std::optional<double> programOnce(const std::string &url)
{
    const std::string root = freshCopy();
    const std::string program = root + "/bin/vantrel";
    ChildProcess old({"/bin/sh", "-c", "exec 2>&1 \"$0\"", program}, environment);
    const auto clicked = lineWith(old, "update status: Downloading 1.2.0");
    const auto answered = clicked ? lineWith(old, "Vantrel 1.2.0") : std::nullopt;
    stopAll(program);
    if (!answered) {
        std::fprintf(stderr, "bench_update: the program did not update (service %s)\n",
                     url.c_str());
        return std::nullopt;
    }
    return std::chrono::duration<double>(*answered - *clicked).count() - 1.0;
}

// The shell: the same download, check, unpack, swap and clean-up, then the new copy started.
std::optional<double> shellOnce(const std::string &url, const std::string &ca)
{
    const std::string root = freshCopy();
    const std::string program = root + "/bin/vantrel";
    const std::string steps = "set -e; cd '" + work +
        "'; d=$TMPDIR/Vantrel-update.tar.gz; rm -f \"$d\";"
        " curl -sSf --cacert '" +
        ca + "' -o \"$d\" '" + url +
        "/download/Vantrel-1.2.0-linux-x86_64.tar.gz';"
        " openssl pkeyutl -verify -pubin -inkey '" +
        work +
        "/public.pem' -rawin -in \"$d\""
        " -sigfile '" +
        releases +
        "/Vantrel-1.2.0-linux-x86_64.tar.gz.sig' >/dev/null;"
        " s=$(mktemp -d opt/.staging-XXXXXX); tar -xzf \"$d\" -C \"$s\";"
        " mv opt/Vantrel \"$s/old\"; mv \"$s/Vantrel\" opt/Vantrel; rm -rf \"$s\" \"$d\";"
        " exec 2>&1 '" +
        program + "'";
    const auto clicked = Clock::now();
    ChildProcess shell({"/bin/sh", "-c", steps}, environment);
    const auto answered = lineWith(shell, "Vantrel 1.2.0");
    stopAll(program);
    if (!answered) {
        std::fprintf(stderr, "bench_update: the shell's steps failed\n");
        return std::nullopt;
    }
    return std::chrono::duration<double>(*answered - clicked).count();
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: bench_update WORK SERVICE RUNS (see bench/update.sh)\n");
        return 2;
    }
    work = argv[1];
    releases = work + "/releases";
    const std::string serviceProgram = argv[2];
    const int runs = std::atoi(argv[3]);
    // The relaunched copies leave their parents; as the subreaper this process reaps them.
    prctl(PR_SET_CHILD_SUBREAPER, 1);

    const std::string home = work + "/home";
    fs::create_directories(home + "/.config/quillfen");
    fs::create_directories(home + "/tmp");
    fs::create_directories(home + "/run");
    fs::permissions(home + "/run", fs::perms::owner_all);
    std::ofstream(home + "/.config/quillfen/Vantrel.conf") << "[General]\narmOnLaunch=false\n";

    // The service, over HTTPS with a certificate of its own, offering 1.2.0.
    const std::string data = work + "/service";
    fs::create_directories(data);
    const std::string cert = work + "/cert.pem", key = work + "/key.pem";
    if (ChildProcess::run({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                           "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", key, "-out", cert,
                           "-days", "1", "-subj", "/CN=localhost", "-addext",
                           "subjectAltName=DNS:localhost,IP:127.0.0.1"}) != 0 ||
        ChildProcess::run({"cp",
                           fs::path(argv[0]).parent_path().parent_path() / "release-key/public.pem",
                           work + "/public.pem"}) != 0) {
        std::fprintf(stderr, "bench_update: cannot make the certificate or find the release key\n");
        return 1;
    }
    const std::string port = std::to_string(20000 + ::getpid() % 20000);
    const std::string url = "https://127.0.0.1:" + port;
    if (ChildProcess::run({serviceProgram, "release", "add", "1.2.0",
                           releases + "/Vantrel-1.2.0-linux-x86_64.tar.gz", "--notes", "Faster.",
                           "--signature", releases + "/Vantrel-1.2.0-linux-x86_64.tar.gz.sig",
                           "--data", data}) != 0) {
        std::fprintf(stderr, "bench_update: %s release add failed\n", serviceProgram.c_str());
        return 1;
    }
    ChildProcess service({serviceProgram, "serve", "--data", data, "--listen", "127.0.0.1:" + port,
                          "--tls-cert", cert, "--tls-key", key, "--public-url", url},
                         {}, work + "/service.log");
    bool up = false;
    for (int i = 0; i < 100 && !up; ++i) {
        up = ChildProcess::run(
                 {"curl", "-sSf", "--cacert", cert, "-o", "/dev/null", url + "/v1/version"}) == 0;
        if (!up)
            std::this_thread::sleep_for(100ms);
    }
    if (!up) {
        std::fprintf(stderr, "bench_update: the service did not come up (see %s/service.log)\n",
                     work.c_str());
        return 1;
    }

    environment = {{"HOME", home},
                   {"XDG_CONFIG_HOME", home + "/.config"},
                   {"XDG_STATE_HOME", home + "/.local/state"},
                   {"XDG_DATA_HOME", home + "/.local/share"},
                   {"XDG_RUNTIME_DIR", home + "/run"},
                   {"TMPDIR", home + "/tmp"},
                   {"DISPLAY", ""},
                   {"QT_QPA_PLATFORM", "offscreen"},
                   {"VANTREL_SERVICE_URL", url},
                   {"VANTREL_SERVICE_CA", cert}};

    std::vector<double> program, shell;
    for (int i = 0; i < runs; ++i) {
        // Alternating sides, the first side alternating too.
        for (int side = 0; side < 2; ++side) {
            const bool programFirst = i % 2 == 0;
            const bool isProgram = (side == 0) == programFirst;
            const auto seconds = isProgram ? programOnce(url) : shellOnce(url, cert);
            if (!seconds)
                return bench::verdict("update", "failed", "ratio <= 1.2", false);
            (isProgram ? program : shell).push_back(*seconds);
            std::printf("run %d %-7s %.3f s\n", i + 1, isProgram ? "program" : "shell", *seconds);
            std::fflush(stdout);
        }
    }
    const double p = bench::median(program), s = bench::median(shell);
    std::printf("median: program %.3f s (its fixed 1 s relaunch pause taken out), shell %.3f s\n",
                p, s);
    char figure[160];
    std::snprintf(figure, sizeof figure, "program %.3f s, shell %.3f s, ratio %.2f", p, s, p / s);
    return bench::verdict("update", figure, "ratio <= 1.2", p / s <= 1.2);
}
