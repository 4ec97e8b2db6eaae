// The library's posters: poster frames and durations for a folder of 100 clips made by
// ClipPosters as the library asks for them (two threads of its own, a cold cache), against ffmpeg
// making one thumbnail per clip the usual way, one process after another:
//   ffmpeg -ss 0 -i CLIP -frames:v 1 -vf scale=320:-2 thumb.jpg
// The clips are real: one 30 s 1080p60 clip at 18 Mbit/s written by the clip export, under 100
// names (hard links, so both sides read the same cached bytes). Runs alternate between the two
// sides; figures are medians.
//
// Each part of the benchmark is a Part below with its own figure and target; the window's first
// frame with 500 clips against none (the library's view) is one more Part, for when that view
// exists.

#include "BenchSupport.h"
#include "TimedProcess.h"

#include "media/ClipPosters.h"
#include "support/TestClip.h"

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QTimer>

#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace {

constexpr int clipCount = 100;
constexpr int runs = 5;

// Ours: every poster asked for at once, the time until the last answer; into an empty cache
// unless `warm`.
double runOurs(const QStringList &clips, const QString &cache, bool warm, int *withPoster)
{
    if (!warm)
        QDir(cache).removeRecursively();
    ClipPosters posters(cache, 2);
    int answered = 0;
    *withPoster = 0;
    QEventLoop loop;
    QObject::connect(&posters, &ClipPosters::posterReady, [&](const ClipPosters::Poster &poster) {
        *withPoster += poster.hasPoster();
        if (++answered == clips.size())
            loop.quit();
    });
    const auto start = std::chrono::steady_clock::now();
    for (const QString &clip : clips)
        posters.request(clip);
    loop.exec();
    return bench::secondsSince(start);
}

double runPeer(const QStringList &clips, const QString &folder)
{
    const QString thumb = QDir(folder).filePath(QStringLiteral("thumb.jpg"));
    double total = 0;
    for (const QString &clip : clips)
        total += bench::timedFfmpeg({"-nostdin", "-y", "-v", "error", "-ss", "0", "-i", clip,
                                     "-frames:v", "1", "-vf", "scale=320:-2", thumb},
                                    {});
    return total;
}

struct Part
{
    std::string figure;
    std::string target;
    bool pass = false;
};

Part postersAgainstFfmpeg(const QString &home)
{
    std::printf("making a 30 s 1080p60 clip at 18 Mbit/s...\n");
    std::fflush(stdout);
    const QString clip = makeTestClip(30, 1920, 1080, false, 18'000'000);
    const QString folder = QDir(home).filePath(QStringLiteral("library"));
    QDir().mkpath(folder);
    QStringList clips;
    for (int i = 0; i < clipCount; ++i) {
        const QString name =
            QDir(folder).filePath(QStringLiteral("Clip %1.mp4").arg(i, 3, 10, QLatin1Char('0')));
        if (::link(QFile::encodeName(clip).constData(), QFile::encodeName(name).constData()) != 0)
            QFile::copy(clip, name);
        clips << name;
    }
    const QString cache = QDir(home).filePath(QStringLiteral("posters"));
    std::vector<double> ours, peer;
    int withPoster = 0;
    for (int run = 0; run < runs; ++run) {
        // Alternating, so that drift on a shared machine hits both sides alike.
        ours.push_back(runOurs(clips, cache, false, &withPoster));
        peer.push_back(runPeer(clips, home));
        std::printf("run %d: ClipPosters %.3f s, ffmpeg %.3f s (load %s)\n", run + 1, ours.back(),
                    peer.back(), bench::loadAverage().c_str());
        std::fflush(stdout);
    }
    // From the cache: what the next launch pays.
    const double cached = runOurs(clips, cache, true, &withPoster);

    const double o = bench::median(ours), p = bench::median(peer);
    std::printf("%d posters: ClipPosters %.3f s (%.1f ms each, %d with a poster), ffmpeg %.3f s "
                "(%.1f ms each), ratio %.3f (medians of %d); from the cache %.3f s\n",
                clipCount, o, o * 1e3 / clipCount, withPoster, p, p * 1e3 / clipCount, o / p, runs,
                cached);
    char figure[120];
    std::snprintf(figure, sizeof figure, "100 posters %.2f x ffmpeg's time", o / p);
    return {figure, "<= 0.3 x", o / p <= 0.3 && withPoster == clipCount};
}

} // namespace

int main(int argc, char **argv)
{
    const QString home = QString::fromStdString(bench::isolateHome());
    setenv("XDG_CACHE_HOME", (home + QStringLiteral("/.cache")).toLocal8Bit().constData(), 1);
    QCoreApplication application(argc, argv);
    std::printf("load average at the start: %s\n", bench::loadAverage().c_str());
    // The parts of this benchmark, each with its figure and target; all must pass.
    const std::vector<std::function<Part(const QString &)>> parts {postersAgainstFfmpeg};
    std::string figures, targets;
    bool pass = true;
    for (const auto &part : parts) {
        const Part result = part(home);
        figures += (figures.empty() ? "" : ", ") + result.figure;
        targets += (targets.empty() ? "" : ", ") + result.target;
        pass = pass && result.pass;
    }
    std::printf("load average at the end: %s\n", bench::loadAverage().c_str());
    QDir(home).removeRecursively();
    return bench::verdict("thumbnails", figures, targets, pass);
}
