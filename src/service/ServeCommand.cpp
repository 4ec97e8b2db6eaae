#include "service/ServeCommand.h"

#include "service/ClipProbe.h"
#include "service/CommandLine.h"
#include "service/DataFolder.h"
#include "service/VettingHelper.h"
#include "service/PosterMaker.h"
#include "service/ServiceServer.h"
#include "service/StoreOptions.h"
#include "service/StoreRecovery.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <pthread.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace {

struct ListenAddress
{
    std::string host;
    int port = 0;
};

ListenAddress parseListen(const std::string &text)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0)
        throw CommandLine::Error("--listen takes HOST:PORT, such as 127.0.0.1:8443.");
    ListenAddress address;
    address.host = text.substr(0, colon);
    if (address.host.size() > 2 && address.host.front() == '[' && address.host.back() == ']')
        address.host = address.host.substr(1, address.host.size() - 2);
    address.port = CommandLine::parseInteger(text.substr(colon + 1), "listen", 0, 65535);
    return address;
}

bool isLoopback(const std::string &host)
{
    return host == "127.0.0.1" || host == "localhost" || host == "::1";
}

std::string parsePublicUrl(std::string url)
{
    const bool web = url.rfind("https://", 0) == 0 || url.rfind("http://", 0) == 0;
    if (!web || url.find_first_of("?# \"<>") != std::string::npos ||
        url.size() <= (url[4] == 's' ? 8u : 7u))
        throw CommandLine::Error("--public-url takes the address people reach the service at, "
                                 "such as https://clips.example.org.");
    while (url.back() == '/')
        url.pop_back();
    return url;
}

// Every connection is a descriptor: the soft limit (often 1024) is raised as far as the system
// lets, and the connection limit lowered to fit what it gives, with room for files and the
// database.
int fitConnections(int wanted)
{
    rlimit files {};
    if (::getrlimit(RLIMIT_NOFILE, &files) != 0)
        return wanted;
    if (files.rlim_cur < files.rlim_max) {
        files.rlim_cur = files.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &files);
        ::getrlimit(RLIMIT_NOFILE, &files);
    }
    const rlim_t spare = 128;
    if (files.rlim_cur == RLIM_INFINITY || files.rlim_cur >= rlim_t(wanted) + spare)
        return wanted;
    const int fitted = std::max(16, int(files.rlim_cur) - int(spare));
    std::fprintf(stderr,
                 "vantrel-service: only %d descriptors may be open; serving at most %d "
                 "connections at once\n",
                 int(files.rlim_cur), fitted);
    return fitted;
}

TrustedProxies parseProxies(const std::vector<std::string> &addresses)
{
    TrustedProxies proxies;
    for (const std::string &address : addresses) {
        try {
            proxies.add(address);
        } catch (const std::invalid_argument &) {
            throw CommandLine::Error("--trusted-proxy takes the address of a proxy in front of "
                                     "the service, such as 127.0.0.1, not \"" +
                                     address + "\".");
        }
    }
    return proxies;
}

} // namespace

namespace ServeCommand {

int run(const std::vector<std::string> &arguments)
{
    std::set<std::string> options {"listen",
                                   "public-url",
                                   "tls-cert",
                                   "tls-key",
                                   "max-upload",
                                   "code-lifetime",
                                   "poll-rate",
                                   "token-rate",
                                   "threads",
                                   "trusted-proxy",
                                   "max-connections",
                                   "connections-per-address",
                                   "handshake-timeout",
                                   "head-timeout",
                                   "poster-memory",
                                   "orphan-grace"};
    options.insert(StoreOptions::names().begin(), StoreOptions::names().end());
    const CommandLine line(arguments, options, {"quiet"});
    if (!line.words().empty())
        throw CommandLine::Error("serve takes no words, only options.");
    const StoreOptions::Choice stores = StoreOptions::parse(line, true);
    const std::string data = stores.data;
    const ListenAddress listen = parseListen(line.option("listen").value_or("127.0.0.1:8443"));
    const std::string publicUrl = parsePublicUrl(line.required("public-url"));

    ServiceLimits limits;
    if (auto value = line.option("max-upload"))
        limits.maxUploadBytes = CommandLine::parseSize(*value, "max-upload");
    if (auto value = line.option("code-lifetime"))
        limits.deviceCodeSeconds = CommandLine::parseInteger(*value, "code-lifetime", 1, 86400);
    if (auto value = line.option("poll-rate"))
        limits.devicePollsPerMinute = CommandLine::parseInteger(*value, "poll-rate", 1, 100000);
    if (auto value = line.option("token-rate"))
        limits.tokenRequestsPerMinute = CommandLine::parseInteger(*value, "token-rate", 1, 100000);
    if (auto value = line.option("threads"))
        limits.threads = CommandLine::parseInteger(*value, "threads", 2, 1024);
    if (auto value = line.option("max-connections"))
        limits.maxConnections = CommandLine::parseInteger(*value, "max-connections", 4, 1000000);
    if (auto value = line.option("connections-per-address"))
        limits.connectionsPerAddress =
            CommandLine::parseInteger(*value, "connections-per-address", 1, 1000000);
    if (auto value = line.option("handshake-timeout"))
        limits.handshakeSeconds = CommandLine::parseInteger(*value, "handshake-timeout", 1, 600);
    if (auto value = line.option("head-timeout"))
        limits.headSeconds = CommandLine::parseInteger(*value, "head-timeout", 1, 600);
    if (auto value = line.option("poster-memory"))
        limits.posterMemoryBytes = CommandLine::parseSize(*value, "poster-memory");
    limits.maxConnections = fitConnections(limits.maxConnections);

    ListenConfig config;
    config.host = listen.host;
    config.port = listen.port;
    config.tlsCertificate = line.option("tls-cert").value_or("");
    config.tlsKey = line.option("tls-key").value_or("");
    config.logRequests = !line.flag("quiet");
    config.trustedProxies = parseProxies(line.values("trusted-proxy"));
    if (config.tlsCertificate.empty() != config.tlsKey.empty())
        throw CommandLine::Error("--tls-cert and --tls-key go together.");
    const bool tls = !config.tlsCertificate.empty();
    if (!tls && !isLoopback(listen.host))
        throw CommandLine::Error("Without --tls-cert and --tls-key the service serves plain HTTP, "
                                 "and then only on 127.0.0.1.");

    // Before the lock, the stores and any thread: the helper takes none of them along.
    if (!VettingHelper::start())
        std::fprintf(stderr,
                     "vantrel-service: no helper for upload checks; each starts the "
                     "executable anew\n");
    const int lock = DataFolder::lock(data);

    ClipProbe::silenceLibraryLog();
    // A connection for every few workers: each call holds one only for its own statements.
    const std::unique_ptr<RecordStore> records =
        StoreOptions::openRecords(stores, std::max(4, limits.threads / 4));
    const std::unique_ptr<FileStore> files = StoreOptions::openFiles(stores);
    const int orphanGrace = CommandLine::parseInteger(line.option("orphan-grace").value_or("3600"),
                                                      "orphan-grace", 0, 30 * 86400);
    const StoreRecovery::Report repaired = StoreRecovery::repair(*records, *files, orphanGrace);
    if (repaired.abandonedFilesRemoved > 0 || repaired.recordsRemoved > 0 ||
        !repaired.warning.empty())
        std::fprintf(stderr, "vantrel-service: store repaired: %s\n",
                     StoreRecovery::describe(repaired).c_str());
    std::fprintf(stderr, "vantrel-service: %s\n", StoreOptions::describe(stores).c_str());

    // SIGINT and SIGTERM are taken by one thread that stops the server; every other thread
    // (the server's pool included) is started with them blocked.
    sigset_t stopping;
    sigemptyset(&stopping);
    sigaddset(&stopping, SIGINT);
    sigaddset(&stopping, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopping, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    ServiceContext context(*records, *files, limits, publicUrl);
    ClipVetting::Budget posterBudget;
    posterBudget.memoryBytes = limits.posterMemoryBytes;
    posterBudget.bounds = {limits.maxVideoWidth, limits.maxVideoHeight};
    PosterMaker posters(*records, *files, posterBudget);
    context.posters = &posters;
    ServiceServer server(context, config);
    const int port = server.bind();
    const std::string scheme = tls ? "https" : "http";
    std::printf("vantrel-service: listening on %s://%s:%d for %s\n", scheme.c_str(),
                listen.host.c_str(), port, publicUrl.c_str());
    if (!tls)
        std::printf("vantrel-service: plain HTTP without TLS, on 127.0.0.1 only; give --tls-cert "
                    "and --tls-key to serve HTTPS\n");
    std::fflush(stdout);

    std::thread waiter([&] {
        int signal = 0;
        sigwait(&stopping, &signal);
        server.stop();
    });
    server.run();
    // Stopped some other way than by a signal: wake the waiter so it can be joined.
    pthread_kill(waiter.native_handle(), SIGTERM);
    waiter.join();
    ::close(lock);
    return 0;
}

} // namespace ServeCommand
