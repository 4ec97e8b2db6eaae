// Posters and durations of real clips (written by the clip export from real H.264), and of the
// damaged files under tests/data/posters, asked for from a thread with an event loop as the
// library asks for them.

#include "media/ClipPosters.h"

#include "support/MediaProbe.h"
#include "support/TestClip.h"
#include "support/TestEnvironment.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QTimer>

#include <sys/stat.h>
#include <time.h>

// ffmpeg and ffprobe are started through QProcess, which clones with a shared address space until
// exec. ThreadSanitizer takes that for a fork of a threaded process and would kill the test at the
// next thread it starts (an encoder's, a decoder's). Nothing runs in the child before exec, so the
// warning does not apply.
extern "C" const char *__tsan_default_options()
{
    return "die_after_fork=0";
}

namespace {

double threadCpuSeconds()
{
    timespec now {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

// CPU seconds of this process's threads named `name`, from the scheduler's own count.
double threadsCpuSeconds(const QByteArray &name)
{
    double total = 0;
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString &task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm(tasks.filePath(task + QStringLiteral("/comm")));
        QFile schedstat(tasks.filePath(task + QStringLiteral("/schedstat")));
        if (comm.open(QIODevice::ReadOnly) && comm.readAll().trimmed() == name &&
            schedstat.open(QIODevice::ReadOnly))
            total += schedstat.readAll().split(' ').value(0).toDouble() / 1e9;
    }
    return total;
}

// Runs the thread's event loop (asleep between events) until `done` holds or `ms` pass.
bool processUntil(const std::function<bool()> &done, int ms)
{
    QEventLoop loop;
    QTimer check;
    const QDeadlineTimer deadline(ms);
    QObject::connect(&check, &QTimer::timeout, [&] {
        if (done() || deadline.hasExpired())
            loop.quit();
    });
    check.start(5);
    if (!done())
        loop.exec();
    return done();
}

// The answer of a future that the asking thread's event loop fulfils.
ClipPosters::Poster answerOf(QFuture<ClipPosters::Poster> future)
{
    processUntil([&] { return future.isFinished(); }, 30000);
    return future.isFinished() ? future.result() : ClipPosters::Poster {};
}

class ClipPostersTest : public TempHomeTest
{
protected:
    QString cache() const { return tempFolder() + QStringLiteral("/posters"); }
    QStringList cacheFiles() const { return QDir(cache()).entryList(QDir::Files); }
};

} // namespace

// Twelve clips asked for at once: each answer comes on the asking thread, with the poster of the
// clip's first frame and its duration, while that thread does nothing but take them in; asked
// again, they come from the cache; a clip that changes is made again.
TEST_F(ClipPostersTest, AFolderOfClipsFillsInWithoutHoldingUpTheAskingThread)
{
    int argc = 0;
    QCoreApplication application(argc, nullptr);
    const QString shorter = makeTestClip(3, 640, 360, false);
    const QString longer = makeTestClip(5, 640, 360, false);
    QStringList clips;
    for (int i = 0; i < 12; ++i) {
        const QString name = QStringLiteral("%1/Clip %2.mp4").arg(tempFolder()).arg(i);
        ASSERT_TRUE(QFile::copy(i % 2 ? longer : shorter, name));
        clips << name;
    }

    ClipPosters posters(cache(), 2);
    std::vector<ClipPosters::Poster> answers;
    QObject::connect(&posters, &ClipPosters::posterReady,
                     [&](const ClipPosters::Poster &poster) { answers.push_back(poster); });
    // The asking thread's stalls: ticks every 10 ms, the longest gap between two.
    QTimer ticks;
    QDeadlineTimer lastTick;
    qint64 longestGapMs = 0;
    QObject::connect(&ticks, &QTimer::timeout, [&] {
        longestGapMs = std::max(longestGapMs, 10 - lastTick.remainingTime());
        lastTick.setRemainingTime(10);
    });
    ticks.start(10);
    lastTick.setRemainingTime(10);
    // What the ticks and the waiting cost this thread by themselves, a second's worth (much
    // more under a sanitizer than without).
    QElapsedTimer clock;
    clock.start();
    double cpuBefore = threadCpuSeconds();
    processUntil([] { return false; }, 300);
    const double idlePerSecond = (threadCpuSeconds() - cpuBefore) / (clock.nsecsElapsed() / 1e9);

    clock.restart();
    cpuBefore = threadCpuSeconds();
    for (const QString &clip : clips)
        posters.request(clip);
    posters.request(clips.front()); // asked twice, answered once
    const double cpuAsking = threadCpuSeconds() - cpuBefore;
    ASSERT_TRUE(processUntil([&] { return answers.size() == 12; }, 120000)) << answers.size();
    const double cpuWhole =
        threadCpuSeconds() - cpuBefore - idlePerSecond * clock.nsecsElapsed() / 1e9;
    const double cpuPosters = threadsCpuSeconds("vt-poster");
    processUntil([] { return false; }, 100);
    EXPECT_EQ(answers.size(), 12u);
    // The posters' threads decoded and wrote twelve pictures; the asking thread spent a small
    // part of that (about 1 % here) asking and taking the answers in. (Not under
    // ThreadSanitizer, which charges this thread for symbolizing the stacks of the races its
    // suppressions excuse, Qt's queued signals among them: a tenth of a second here.)
#if !defined(__SANITIZE_THREAD__)
    EXPECT_LT(cpuWhole, 0.1 * cpuPosters) << "asking and taking in the answers";
#endif
    EXPECT_LT(cpuAsking, 0.02 * cpuPosters) << "asking";
    EXPECT_LT(longestGapMs, 250) << "the asking thread stalled";
    std::printf("asking thread: %.2f ms of CPU to ask, %.2f ms in all beyond its idle %.2f ms a "
                "second, the posters' threads %.2f ms, for 12 posters; longest stall %lld ms\n",
                cpuAsking * 1e3, cpuWhole * 1e3, idlePerSecond * 1e3, cpuPosters * 1e3,
                qlonglong(longestGapMs));

    for (const ClipPosters::Poster &poster : answers) {
        ASSERT_TRUE(poster.hasPoster()) << poster.problem.toStdString();
        const bool isLonger = clips.indexOf(poster.clip) % 2;
        ASSERT_TRUE(poster.seconds.has_value());
        EXPECT_NEAR(*poster.seconds, isLonger ? 5.0 : 3.0, 0.05);
        EXPECT_TRUE(poster.image.startsWith(cache()));
    }
    // The poster is the clip's first picture, at 320 pixels wide: close to ffmpeg's first frame
    // (the test picture's noise and the JPEG keep it from matching exactly), and not to one a
    // second later (the test picture moves).
    const QString image = answers.front().image;
    const QJsonObject info = probe::ffprobe(image);
    const QJsonArray video = probe::streams(info, QStringLiteral("video"));
    ASSERT_EQ(video.size(), 1);
    EXPECT_EQ(video[0].toObject().value(QStringLiteral("codec_name")).toString(),
              QStringLiteral("mjpeg"));
    EXPECT_EQ(video[0].toObject().value(QStringLiteral("width")).toInt(), 320);
    EXPECT_EQ(video[0].toObject().value(QStringLiteral("height")).toInt(), 180);
    const QByteArray poster = probe::grayFrame(image, 0);
    const double first = probe::meanDifference(poster, probe::grayFrame(shorter, 0));
    const double later = probe::meanDifference(poster, probe::grayFrame(shorter, 1.0));
    std::printf("poster against the first frame %.2f, against one a second later %.2f\n", first,
                later);
    EXPECT_GE(first, 0);
    EXPECT_LT(first, 10.0);
    EXPECT_GT(later, 3 * first);

    // Another instance (the next launch) answers from the cache: the same pictures, nothing new.
    const QStringList kept = cacheFiles();
    EXPECT_EQ(kept.size(), 24) << kept.join(' ').toStdString();
    ClipPosters again(cache(), 2);
    const ClipPosters::Poster cached = answerOf(again.poster(clips[3]));
    const auto first3 = std::find_if(answers.begin(), answers.end(),
                                     [&](const auto &answer) { return answer.clip == clips[3]; });
    ASSERT_NE(first3, answers.end());
    EXPECT_EQ(cached.image, first3->image);
    EXPECT_NEAR(*cached.seconds, 5.0, 0.05);
    EXPECT_EQ(cacheFiles(), kept);

    // A clip replaced by another file is made again; pruning drops what no clip has any more.
    ASSERT_TRUE(QFile::remove(clips[3]));
    ASSERT_TRUE(QFile::copy(shorter, clips[3]));
    const ClipPosters::Poster remade = answerOf(again.poster(clips[3]));
    EXPECT_NEAR(*remade.seconds, 3.0, 0.05);
    EXPECT_EQ(cacheFiles().size(), 26);
    again.pruneCache(clips);
    EXPECT_TRUE(processUntil([&] { return cacheFiles().size() == 24; }, 10000));
    EXPECT_TRUE(QFile::exists(remade.image));
}

// Damaged and foreign files are answered, without a poster and with a reason; a file with sound
// only still has its duration. (AddressSanitizer watches the decoding of each.)
TEST_F(ClipPostersTest, DamagedFilesGetNoPosterAndSayWhy)
{
    int argc = 0;
    QCoreApplication application(argc, nullptr);
    ClipPosters posters(cache(), 2);
    const QDir data(QStringLiteral(VANTREL_TEST_DATA "/posters"));
    const QStringList names {"truncated.mp4", "garbage.mp4", "empty.mp4", "audio-only.mp4",
                             "corrupt-key-frame.mp4"};
    std::vector<QFuture<ClipPosters::Poster>> futures;
    for (const QString &name : names)
        futures.push_back(posters.poster(data.filePath(name)));
    futures.push_back(posters.poster(tempFolder() + QStringLiteral("/gone.mp4")));
    ASSERT_TRUE(processUntil(
        [&] {
            return std::all_of(futures.begin(), futures.end(),
                               [](const auto &future) { return future.isFinished(); });
        },
        30000));

    for (size_t i = 0; i < futures.size(); ++i) {
        const ClipPosters::Poster poster = futures[i].result();
        const std::string name = QFileInfo(poster.clip).fileName().toStdString();
        // A damaged key frame may still decode into something (the decoder hides what it can);
        // everything else has no picture to show.
        if (name != "corrupt-key-frame.mp4") {
            EXPECT_FALSE(poster.hasPoster()) << name;
        }
        if (!poster.hasPoster()) {
            EXPECT_FALSE(poster.problem.isEmpty()) << name;
        }
        std::printf("%s: %s\n", name.c_str(),
                    poster.hasPoster() ? "a poster" : qPrintable(poster.problem));
    }
    EXPECT_EQ(futures[3].result().problem, QStringLiteral("it has no video"));
    ASSERT_TRUE(futures[3].result().seconds.has_value());
    EXPECT_NEAR(*futures[3].result().seconds, 2.0, 0.1);
    EXPECT_EQ(futures.back().result().problem, QStringLiteral("it is not there"));

    // The default cache is a folder of this user's alone.
    const QString folder = ClipPosters::defaultCacheFolder();
    EXPECT_EQ(folder, home() + QStringLiteral("/.cache/Vantrel/posters"));
    struct stat info = {};
    ASSERT_EQ(::stat(QFile::encodeName(folder).constData(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
}
