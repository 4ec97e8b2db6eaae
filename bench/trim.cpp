// Frame-accurate trims: 20 s cut out of a 120 s clip (1080p60 at 18 Mbit/s with its sound, as a
// save writes it) by ClipTrim, against ffmpeg on the same cut side by side:
//   - the stream copy, `ffmpeg -ss IN -to OUT -i CLIP -c copy`, which is not frame-accurate (it
//     starts on the key frame before IN), the floor of any cut;
//   - the whole cut encoded again with the capture's settings (libx264 ultrafast, zerolatency,
//     High profile with the 8x8 transform, 18 Mbit/s, key frames every 120, no B-frames, two
//     threads), the sound copied: what a frame-accurate cut costs without our trick.
// The cuts start at five places across a group of pictures (a tenth, three tenths, … of the way
// from one key frame to the next), since what is encoded anew is the part of the group after the
// start. A trim view makes that part in advance once the user sets the start (ClipTrim::prepare),
// so what the user waits for after "Save trimmed copy" is timed too, apart; the verdict is on
// the whole cut. Runs alternate between the four; figures are medians over all cuts and runs.

#include "BenchSupport.h"
#include "TimedProcess.h"

#include "replay/ClipTrim.h"
#include "support/TestClip.h"

#include <QDir>
#include <QFile>

#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr int clipSeconds = 120;
constexpr int cutSeconds = 20;
constexpr int rounds = 3;
const double phases[] = {0.1, 0.3, 0.5, 0.7, 0.9};

// `prepared`: the start made in advance first (as a trim view does when the user sets it), and
// only the rest timed: what the user waits for after "Save trimmed copy".
double runOurs(const QString &clip, double in, bool prepared)
{
    if (prepared)
        ClipTrim::prepare(clip, MediaTime::fromSeconds(in, 90000)).waitForFinished();
    const auto start = std::chrono::steady_clock::now();
    const ClipTrim::Trimmed trimmed = ClipTrim::write(
        {clip, MediaTime::fromSeconds(in, 90000), MediaTime::fromSeconds(in + cutSeconds, 90000)});
    const double elapsed = bench::secondsSince(start);
    QFile::remove(trimmed.path);
    return elapsed;
}

double runFfmpeg(const QString &clip, double in, const QString &out, const QStringList &codecs)
{
    QStringList arguments {"-nostdin", "-y",
                           "-v",       "error",
                           "-ss",      QString::number(in, 'f', 4),
                           "-to",      QString::number(in + cutSeconds, 'f', 4),
                           "-i",       clip};
    arguments << codecs << out;
    return bench::timedFfmpeg(arguments, out);
}

} // namespace

int main()
{
    const QString home = QString::fromStdString(bench::isolateHome());
    std::printf("load average at the start: %s\nmaking a %d s 1080p60 clip at 18 Mbit/s with its "
                "sound...\n",
                bench::loadAverage().c_str(), clipSeconds);
    std::fflush(stdout);
    const QString clip = makeTestClip(clipSeconds, 1920, 1080, true, 18'000'000);
    const QString out = QDir(home).filePath(QStringLiteral("peer.mp4"));
    const QStringList copy {"-c", "copy"};
    const QStringList reencode {"-c:v",        "libx264",    "-preset",  "ultrafast",    "-tune",
                                "zerolatency", "-profile:v", "high",     "-x264-params", "8x8dct=1",
                                "-b:v",        "18M",        "-maxrate", "64M",          "-bufsize",
                                "64M",         "-g",         "120",      "-bf",          "0",
                                "-threads",    "2",          "-c:a",     "copy"};

    std::vector<double> ours, oursPrepared, copied, encoded;
    for (int round = 0; round < rounds; ++round) {
        for (double phase : phases) {
            // Key frames every two seconds: 50 s is one.
            const double in = 50 + 2 * phase;
            ours.push_back(runOurs(clip, in, false));
            copied.push_back(runFfmpeg(clip, in, out, copy));
            oursPrepared.push_back(runOurs(clip, in, true));
            encoded.push_back(runFfmpeg(clip, in, out, reencode));
            std::printf("cut at %.1f s: ClipTrim %.3f s (%.3f s with its start made in advance), "
                        "ffmpeg -c copy %.3f s, re-encoding %.3f s (load %s)\n",
                        in, ours.back(), oursPrepared.back(), copied.back(), encoded.back(),
                        bench::loadAverage().c_str());
            std::fflush(stdout);
        }
    }
    const double o = bench::median(ours), c = bench::median(copied), e = bench::median(encoded);
    const double p = bench::median(oursPrepared);
    std::printf("20 s of a 120 s clip: ClipTrim %.3f s, ffmpeg -c copy %.3f s (ratio %.2f), "
                "re-encoding the cut %.3f s (ratio %.3f); with the start made in advance %.3f s "
                "(ratio to the copy %.2f); medians of %zu\n",
                o, c, o / c, e, o / e, p, p / c, ours.size());
    std::printf("load average at the end: %s\n", bench::loadAverage().c_str());
    QDir(home).removeRecursively();

    char figure[160];
    std::snprintf(figure, sizeof figure, "%.2f x the stream copy, %.3f x re-encoding the cut",
                  o / c, o / e);
    return bench::verdict("trim", figure, "<= 1.5 x the stream copy, <= 0.2 x re-encoding",
                          o / c <= 1.5 && o / e <= 0.2);
}
