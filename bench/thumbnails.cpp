// The library's posters: poster frames and durations for a folder of 100 clips made by
// ClipPosters as the library asks for them (two threads of its own, a cold cache), against ffmpeg
// making one thumbnail per clip the usual way, one process after another:
//   ffmpeg -ss 0 -i CLIP -frames:v 1 -vf scale=320:-2 thumb.jpg
// The clips are real: one 30 s 1080p60 clip at 18 Mbit/s written by the clip export, under 100
// names (hard links, so both sides read the same cached bytes). Runs alternate between the two
// sides; figures are medians.
//
// Then the window: the time from launch to the dashboard's first frame on the Library tab with
// 500 clips against an empty library, each in a fresh process on a private X server (the rows
// and their posters fill in after it; this is what the user waits for).
//
// Each part of the benchmark is a Part below with its own figure and target.
//
//   bench_thumbnails                    the whole benchmark
//   bench_thumbnails --window FOLDER    (the child it runs: the window on that folder)

#include "BenchSupport.h"
#include "FirstFrame.h"
#include "TimedProcess.h"

#include "app/AppModel.h"
#include "app/ClipLibrary.h"
#include "app/DashboardCallbacks.h"
#include "app/DashboardView.h"
#include "app/DashboardWindow.h"
#include "app/MainMenu.h"
#include "media/ClipPosters.h"
#include "support/ChildProcess.h"
#include "support/PrivateServers.h"
#include "support/TestClip.h"

#include <QApplication>
#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QTimer>

#include <unistd.h>

#include <cstdio>
#include <cstring>
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

// The child: the dashboard on the Library tab over `folder`, as the shell shows it, posters
// asked for by the rows drawn.
int openWindow(int argc, char **argv, const QString &folder)
{
    QApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("quillfen"));
    QCoreApplication::setApplicationName(QStringLiteral("Vantrel"));
    AppModel model;
    ClipLibrary library(model, folder);
    library.refreshClips(true);
    model.setTab(AppModel::Tab::library);
    ClipPosters posters;
    DashboardCallbacks callbacks;
    callbacks.poster = [&posters](const QString &clip) { return posters.poster(clip); };
    FirstFrame frame([] {
        std::printf("frame\n");
        std::fflush(stdout);
        QCoreApplication::quit();
    });
    DashboardWindow window(new DashboardView(model, callbacks), MainMenu::build({}));
    window.centralWidget()->installEventFilter(&frame);
    window.bringForward();
    return app.exec();
}

Part windowWithClips(const QString &home)
{
    constexpr int clips = 500;
    const std::string address = [&] {
        static PrivateServer x = startXvfb(home.toStdString());
        return x.server ? x.address : std::string();
    }();
    if (address.empty())
        return {"no X server", "<= 1.2 x", false};
    setenv("DISPLAY", address.c_str(), 1);
    setenv("QT_QPA_PLATFORM", "xcb", 1);
    setenv("VANTREL_SERVICE_URL", "http://127.0.0.1:9", 1);
    const QString clip = makeTestClip(2, 640, 360, false, 2'000'000);
    const QString full = QDir(home).filePath(QStringLiteral("full"));
    const QString empty = QDir(home).filePath(QStringLiteral("empty"));
    QDir().mkpath(full);
    QDir().mkpath(empty);
    for (int i = 0; i < clips; ++i) {
        const QString name = QDir(full).filePath(
            QStringLiteral("Clip 2026-01-01 00-00-00 %1.mp4").arg(i, 6, 10, QLatin1Char('0')));
        if (::link(QFile::encodeName(clip).constData(), QFile::encodeName(name).constData()) != 0)
            QFile::copy(clip, name);
    }
    char exe[4096] = {};
    if (readlink("/proc/self/exe", exe, sizeof exe - 1) <= 0)
        return {"no executable", "<= 1.2 x", false};
    const auto open = [&](const QString &folder) {
        const auto start = std::chrono::steady_clock::now();
        ChildProcess child({exe, "--window", folder.toStdString()});
        const std::optional<std::string> line = child.readLine(std::chrono::seconds(60));
        const double seconds = bench::secondsSince(start);
        child.wait(std::chrono::seconds(10));
        return line && *line == "frame" ? seconds : -1.0;
    };
    open(empty); // warms the caches for both sides
    std::vector<double> times[2];
    const int windowRuns = 7;
    for (int run = 0; run < windowRuns; ++run) {
        for (int j = 0; j < 2; ++j) {
            const int side = (run + j) % 2;
            const double seconds = open(side == 0 ? full : empty);
            if (seconds < 0)
                return {"a window did not open", "<= 1.2 x", false};
            times[side].push_back(seconds * 1000);
        }
        std::printf("run %d: %d clips %.0f ms, none %.0f ms (load %s)\n", run + 1, clips,
                    times[0].back(), times[1].back(), bench::loadAverage().c_str());
        std::fflush(stdout);
    }
    const double withClips = bench::median(times[0]), without = bench::median(times[1]);
    std::printf("first frame of the Library: %d clips %.0f ms, none %.0f ms (medians of %d, "
                "ratio %.2f)\n",
                clips, withClips, without, windowRuns, withClips / without);
    char figure[120];
    std::snprintf(figure, sizeof figure, "window with %d clips %.2f x empty", clips,
                  withClips / without);
    return {figure, "<= 1.2 x", withClips / without <= 1.2};
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && std::strcmp(argv[1], "--window") == 0)
        return openWindow(argc, argv, QString::fromLocal8Bit(argv[2]));

    const QString home = QString::fromStdString(bench::isolateHome());
    setenv("XDG_CACHE_HOME", (home + QStringLiteral("/.cache")).toLocal8Bit().constData(), 1);
    QCoreApplication application(argc, argv);
    std::printf("load average at the start: %s\n", bench::loadAverage().c_str());
    // The parts of this benchmark, each with its figure and target; all must pass.
    const std::vector<std::function<Part(const QString &)>> parts {postersAgainstFfmpeg,
                                                                   windowWithClips};
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
