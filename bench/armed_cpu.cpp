// bench_armed_cpu: arms the capture engine, with no window, against whatever X display and audio
// server the environment names, and reports what it cost over a measured stretch. The wrapper
// bench/armed_cpu.sh sets up the servers, the moving screen, the tone and the FFmpeg peer.
//
//   bench_armed_cpu [--seconds N] [--settle S] [--clip-length L] [--save]
//
// Prints one line of key=value figures:
//   cpu      percent of one core this process used over the measured stretch
//   fps      frames the stream delivered per second (idle ones included)
//   encoded  frames per second handed to the encoder (complete ones)
//   rss_mb, payload_mb, buffered_s   resident memory, the bytes the replay buffer holds, its span
// With --save, a clip of the clip length is saved half way through the stretch, and the line
// also has save_s (how long the save took), lost (frames missing from the capture while it ran,
// from the gaps between the stored frames' capture times), lost_before (the same for as long
// just before it, for comparison) and the clip's path.

#include "BenchSupport.h"

#include "core/ClipSettings.h"
#include "engine/ClipEngine.h"
#include "media/MonotonicClock.h"

#include <QCoreApplication>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>

namespace {

double residentMegabytes()
{
    std::ifstream file("/proc/self/status");
    std::string line;
    while (std::getline(file, line)) {
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stod(line.substr(6)) / 1024.0;
    }
    return 0;
}

double payloadMegabytes(ReplayBuffer &buffer)
{
    const ReplayBuffer::Snapshot snap = buffer.snapshot();
    double bytes = 0;
    for (const auto &frame : snap.video)
        bytes += double(frame.data.size());
    for (const auto *list : {&snap.audio, &snap.mic}) {
        for (const auto &packet : *list)
            bytes += double(packet.data.size());
    }
    return bytes / (1024.0 * 1024.0);
}

// Frames missing from the buffer between two capture-clock times: every stored frame carries the
// time it was grabbed, so a tick that was never captured shows up as a gap of two or more frame
// periods between neighbours.
int64_t lostFrames(ReplayBuffer &buffer, int64_t fromNanos, int64_t toNanos)
{
    const ReplayBuffer::Snapshot snap = buffer.snapshot();
    const double period = 1.0 / ClipSettings::fps;
    int64_t lost = 0;
    const ReplayBuffer::EncodedFrame *previous = nullptr;
    for (const auto &frame : snap.video) {
        const int64_t at = frame.pts.converted(MediaTime::maxTimescale).value;
        if (at < fromNanos || at > toNanos) {
            previous = at < fromNanos ? &frame : previous;
            continue;
        }
        if (previous)
            lost += std::max<int64_t>(
                0, std::llround((frame.pts - previous->pts).seconds() / period) - 1);
        previous = &frame;
    }
    return lost;
}

void sleepSeconds(double seconds)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

} // namespace

int main(int argc, char **argv)
{
    // The Wayland capture talks to the desktop portal over D-Bus, which wants an application.
    QCoreApplication application(argc, argv);
    double seconds = 20;
    double settle = 3;
    double clipLength = 30;
    bool save = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--seconds" && hasValue)
            seconds = std::stod(argv[++i]);
        else if (arg == "--settle" && hasValue)
            settle = std::stod(argv[++i]);
        else if (arg == "--clip-length" && hasValue)
            clipLength = std::stod(argv[++i]);
        else if (arg == "--save")
            save = true;
        else {
            std::fprintf(stderr, "bench_armed_cpu: unknown argument %s\n", arg.c_str());
            return 2;
        }
    }

    bench::isolateHome();
    ClipSettings::setMaxDuration(clipLength);
    ClipEngine engine;
    try {
        engine.start().waitForFinished();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "bench_armed_cpu: could not arm: %s\n", e.what());
        return 1;
    }
    sleepSeconds(settle);

    const double cpu0 = bench::cpuSeconds(0);
    const int64_t delivered0 = engine.framesDelivered();
    const int64_t encoded0 = engine.framesIn();
    const auto t0 = std::chrono::steady_clock::now();

    std::string saveFigures;
    if (save) {
        sleepSeconds(seconds / 2);
        const int64_t saveFrom = monotonicNanoseconds();
        QString clip;
        try {
            clip = engine.saveClip().result().path;
        } catch (const std::exception &e) {
            std::fprintf(stderr, "bench_armed_cpu: save failed: %s\n", e.what());
            return 1;
        }
        const int64_t saveTo = monotonicNanoseconds();
        sleepSeconds(0.5); // the frames of the save's last moments leave the encoder
        const int64_t span = saveTo - saveFrom;
        char text[300];
        std::snprintf(text, sizeof text, " save_s=%.2f lost=%lld lost_before=%lld clip=%s",
                      double(span) / 1e9, (long long)lostFrames(engine.buffer(), saveFrom, saveTo),
                      (long long)lostFrames(engine.buffer(), saveFrom - span, saveFrom),
                      clip.toUtf8().constData());
        saveFigures = text;
        const double left = seconds - bench::secondsSince(t0);
        if (left > 0)
            sleepSeconds(left);
    } else {
        sleepSeconds(seconds);
    }

    const double elapsed = bench::secondsSince(t0);
    const double cpu = (bench::cpuSeconds(0) - cpu0) / elapsed * 100;
    const double fps = double(engine.framesDelivered() - delivered0) / elapsed;
    const double encoded = double(engine.framesIn() - encoded0) / elapsed;
    std::printf("cpu=%.2f fps=%.2f encoded=%.2f rss_mb=%.1f payload_mb=%.1f buffered_s=%.1f%s\n",
                cpu, fps, encoded, residentMegabytes(), payloadMegabytes(engine.buffer()),
                engine.bufferedDuration(), saveFigures.c_str());
    std::fflush(stdout);
    engine.stop(false).waitForFinished();
    return 0;
}
