// One clip upload through the program's own client, for bench/upload.sh: `bench_upload FILE`
// with VANTREL_SERVICE_URL, VANTREL_SERVICE_CA and VANTREL_BENCH_TOKEN set. Prints one line,
// "seconds=S rss_growth_mb=M": the upload's wall time, from a cold connection (TLS handshake
// included, as curl's time_total is) to the parsed reply, and how far this process's resident
// memory rose above where it stood just before, sampled every 5 ms.

#include "BenchSupport.h"

#include "cloud/ClipCloud.h"
#include "cloud/SharedNetwork.h"

#include <QCoreApplication>
#include <QFile>
#include <QNetworkAccessManager>
#include <QTimer>

#include <chrono>
#include <cstdio>
#include <string>

namespace {

QCoro::Task<void> run(QString path, QString token, int &status)
{
    try {
        // Loads TLS and the rest of the network stack, as any earlier call of the program has.
        co_await ClipCloud::me(token);
        SharedNetwork::manager().clearConnectionCache();

        const double baseline = bench::statusMegabytes("VmRSS");
        double peak = baseline;
        QTimer sampler;
        QObject::connect(&sampler, &QTimer::timeout,
                         [&] { peak = std::max(peak, bench::statusMegabytes("VmRSS")); });
        sampler.start(5);
        const auto start = std::chrono::steady_clock::now();
        const SharedClip shared = co_await ClipCloud::upload(QUrl::fromLocalFile(path), token);
        const double seconds = bench::secondsSince(start);
        peak = std::max(peak, bench::statusMegabytes("VmRSS"));
        std::printf("seconds=%.3f rss_growth_mb=%.1f id=%s\n", seconds, peak - baseline,
                    qPrintable(shared.id));
    } catch (const std::exception &error) {
        std::fprintf(stderr, "bench_upload: %s\n", error.what());
        status = 1;
    }
    QCoreApplication::quit();
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QString token = qEnvironmentVariable("VANTREL_BENCH_TOKEN");
    if (argc != 2 || token.isEmpty()) {
        std::fprintf(stderr, "usage: VANTREL_BENCH_TOKEN=T bench_upload FILE\n");
        return 2;
    }
    int status = 0;
    QTimer::singleShot(0, [&] { run(QString::fromLocal8Bit(argv[1]), token, status); });
    app.exec();
    return status;
}
