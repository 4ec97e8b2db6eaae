// bench_armed_cpu: arms the capture engine, with no window, against whatever X display and audio
// server the environment names, and reports what it cost over a measured stretch. The wrapper
// bench/armed_cpu.sh sets up the servers, the moving screen, the tone and the FFmpeg peer.
//
//   bench_armed_cpu [--seconds N] [--settle S] [--clip-length L] [--save] [--export-nice N]
//
// Prints one line of key=value figures:
//   cpu      percent of one core this process used over the measured stretch
//   fps      frames the stream delivered per second (repeats of a still screen included)
//   encoded  frames per second handed to the encoder (complete ones)
//   rss_mb, payload_mb, buffered_s   resident memory, the bytes the replay buffer holds, its span
// With --save, a clip of the clip length is saved half way through the stretch, and the line
// also has save_threads (each thread's CPU while the save ran, in ms), save_s (how long the save
// took), skipped and late (the capture's own counts of frames it did not deliver while the save
// ran), lost (frames missing from the capture while it ran, from the gaps between the stored
// frames' capture times), lost_before (the same for as long just before it, for comparison) and
// the clip's path. --export-nice runs the save's thread at another niceness (it takes 10 itself),
// to compare.
//
//   bench_armed_cpu --floor [--seconds N]
//
// The encoder alone: a second of the display's frames is captured and converted into the
// encoder's planes first, then the same encoder the engine uses (its settings, one thread handing
// it frames, its packets taken and dropped) is fed those frames at 60 a second, round and round,
// for the measured stretch. Prints cpu (over that stretch only) and fps, as above.

#include "BenchSupport.h"

#include "capture/wayland/WaylandScreenCaptureService.h"
#include "core/ClipSettings.h"
#include "core/Preferences.h"
#include "core/SerialQueue.h"
#include "engine/ClipEngine.h"
#include "media/MonotonicClock.h"
#include "replay/ClipExport.h"
#include "replay/FrameConverter.h"
#include "replay/VideoEncoder.h"

#include <QCoreApplication>

#include <malloc.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <future>
#include <iterator>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

namespace {

// Where the resident memory is: the program's own (anonymous), its libraries' pages, shared
// memory, and of the heap what malloc holds free (fragmentation and arenas kept for reuse).
std::string memoryBreakdown()
{
    const struct mallinfo2 heap = mallinfo2();
    char text[200];
    std::snprintf(text, sizeof text,
                  " anon_mb=%.1f file_mb=%.1f shmem_mb=%.1f heap_free_mb=%.1f heap_mapped_mb=%.1f",
                  bench::statusMegabytes("RssAnon"), bench::statusMegabytes("RssFile"),
                  bench::statusMegabytes("RssShmem"), double(heap.fordblks) / 1048576.0,
                  double(heap.hblkhd) / 1048576.0);
    return text;
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

// For comparing a save's cost at another priority: the export queue's thread set to `niceness`
// after it has set its own.
void setExportNiceness(int niceness)
{
    SerialQueue &queue = ClipExport::exportQueue();
    queue.sync([] {});
    queue.sync([niceness] { setpriority(PRIO_PROCESS, pid_t(syscall(SYS_gettid)), niceness); });
}

void sleepSeconds(double seconds)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// The encoder alone on the display's own frames; see the top of the file.
int floorRun(double seconds)
{
    constexpr int captured = ClipSettings::fps;
    std::unique_ptr<ScreenCaptureService> service = ScreenCaptureService::create();
    const ShareableContent content = service->shareableContent();
    if (content.displays.empty()) {
        std::fprintf(stderr, "bench_armed_cpu: no display to capture\n");
        return 1;
    }
    const CaptureDisplay display = content.displays.front();
    StreamConfiguration config;
    config.capturesAudio = false;
    std::unique_ptr<ScreenStream> stream = service->makeStream(display, config);

    std::unique_ptr<VideoEncoder> encoder;
    try {
        encoder = std::make_unique<VideoEncoder>(display.width, display.height,
                                                 [](EncodedFrame, VideoFormatPtr) {});
    } catch (const std::exception &e) {
        std::fprintf(stderr, "bench_armed_cpu: no encoder: %s\n", e.what());
        return 1;
    }
    std::vector<FFmpeg::FramePtr> pictures;
    std::mutex lock;
    std::condition_variable filled;
    SerialQueue queue("com.quillfen.vantrel.bench", "vt-bench");
    stream->addScreenOutput(queue, [&](const VideoFrame &frame) {
        if (frame.status != VideoFrame::Status::complete)
            return;
        FFmpeg::FramePtr picture(av_frame_alloc());
        picture->format = encoder->inputFormat();
        picture->width = frame.width;
        picture->height = frame.height;
        if (av_frame_get_buffer(picture.get(), 0) < 0 || !FrameConverter::convert(frame, *picture))
            return;
        std::scoped_lock guard(lock);
        if (int(pictures.size()) < captured)
            pictures.push_back(std::move(picture));
        filled.notify_all();
    });
    std::promise<std::optional<std::string>> started;
    stream->startCapture([&](std::optional<std::string> error) { started.set_value(error); });
    if (auto error = started.get_future().get()) {
        std::fprintf(stderr, "bench_armed_cpu: capture failed: %s\n", error->c_str());
        return 1;
    }
    {
        std::unique_lock guard(lock);
        filled.wait_for(guard, std::chrono::seconds(30),
                        [&] { return int(pictures.size()) >= captured; });
    }
    stream->stopCapture();
    stream.reset(); // before the queue it delivers on
    if (int(pictures.size()) < captured) {
        std::fprintf(stderr, "bench_armed_cpu: only %zu frames captured\n", pictures.size());
        return 1;
    }

    // Paced like the capture: each frame is due at its slot, and one that is late is not made up.
    const MediaTime period = MediaTime::make(1, ClipSettings::fps);
    const auto start = std::chrono::steady_clock::now();
    const double cpu0 = bench::cpuSeconds(0);
    int64_t sent = 0;
    for (int64_t slot = 0;; ++slot) {
        const auto due = start + std::chrono::nanoseconds(slot * 1'000'000'000 / ClipSettings::fps);
        if (due - start >= std::chrono::duration<double>(seconds))
            break;
        std::this_thread::sleep_until(due);
        if (std::chrono::steady_clock::now() - due > std::chrono::nanoseconds(16'666'667))
            continue;
        const AVFrame &picture = *pictures[size_t(slot % captured)];
        encoder->encode(picture, MediaTime::make(slot, ClipSettings::fps), period);
        ++sent;
    }
    const double elapsed = bench::secondsSince(start);
    std::printf("cpu=%.2f fps=%.2f\n", (bench::cpuSeconds(0) - cpu0) / elapsed * 100,
                double(sent) / elapsed);
    std::fflush(stdout);
    return 0;
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
    bool floor = false;
    std::optional<int> exportNice;
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
        else if (arg == "--floor")
            floor = true;
        else if (arg == "--export-nice" && hasValue)
            exportNice = std::stoi(argv[++i]);
        else {
            std::fprintf(stderr, "bench_armed_cpu: unknown argument %s\n", arg.c_str());
            return 2;
        }
    }

    bench::isolateHome();
    // Where the desktop's screen question cannot be answered (GNOME, KDE headless), the cast
    // starts from a restore token approved beforehand, as after a user allowed it once.
    if (const QString token = qEnvironmentVariable("VANTREL_RESTORE_TOKEN"); !token.isEmpty())
        Preferences::open()->setValue(
            QString::fromLatin1(WaylandScreenCaptureService::restoreTokenKey), token);
    if (floor)
        return floorRun(seconds);
    ClipSettings::setMaxDuration(clipLength);
    if (exportNice)
        setExportNiceness(*exportNice);
    ClipEngine engine;
    try {
        engine.start().waitForFinished();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "bench_armed_cpu: could not arm: %s\n", e.what());
        return 1;
    }
    sleepSeconds(settle);

    const double cpu0 = bench::cpuSeconds(0);
    const std::map<std::string, double> threads0 = bench::threadCpuSeconds();
    const ScreenStream::Stats capture0 = engine.captureStats();
    const int64_t delivered0 = engine.framesDelivered();
    const int64_t encoded0 = engine.framesIn();
    const auto t0 = std::chrono::steady_clock::now();

    std::string saveFigures;
    if (save) {
        sleepSeconds(seconds / 2);
        const ScreenStream::Stats before = engine.captureStats();
        const std::map<std::string, double> threadsBefore = bench::threadCpuSeconds();
        const int64_t saveFrom = monotonicNanoseconds();
        QString clip;
        try {
            clip = engine.saveClip().result().path;
        } catch (const std::exception &e) {
            std::fprintf(stderr, "bench_armed_cpu: save failed: %s\n", e.what());
            return 1;
        }
        const int64_t saveTo = monotonicNanoseconds();
        const ScreenStream::Stats after = engine.captureStats();
        // Where the save's CPU went, thread by thread, in milliseconds.
        std::string saveThreads = " save_threads=";
        for (const auto &[name, cpu] : bench::threadCpuSeconds()) {
            const auto was = threadsBefore.find(name);
            const double ms = (cpu - (was == threadsBefore.end() ? 0 : was->second)) * 1000;
            if (ms >= 1) {
                std::string tidy = name;
                std::replace(tidy.begin(), tidy.end(), ' ', '_');
                saveThreads += (saveThreads.back() == '=' ? "" : ",") + tidy + ":" +
                    std::to_string(std::lround(ms));
            }
        }
        sleepSeconds(0.5); // the frames of the save's last moments leave the encoder
        const int64_t span = saveTo - saveFrom;
        char text[300];
        std::snprintf(text, sizeof text,
                      " save_s=%.2f skipped=%lld late=%lld lost=%lld lost_before=%lld clip=%s",
                      double(span) / 1e9, (long long)(after.skipped - before.skipped),
                      (long long)(after.late - before.late),
                      (long long)lostFrames(engine.buffer(), saveFrom, saveTo),
                      (long long)lostFrames(engine.buffer(), saveFrom - span, saveFrom),
                      clip.toUtf8().constData());
        saveFigures = saveThreads + text;
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
    // Each thread's share over the stretch, the busiest first: where a still screen's cost goes.
    std::vector<std::pair<double, std::string>> busiest;
    for (const auto &[name, seconds] : bench::threadCpuSeconds()) {
        const auto before = threads0.find(name);
        const double share =
            (seconds - (before == threads0.end() ? 0 : before->second)) / elapsed * 100;
        if (share >= 0.05)
            busiest.emplace_back(share, name);
    }
    std::sort(busiest.rbegin(), busiest.rend());
    // The capture's own view of the stretch: frames it could not hand on (no free buffer, the
    // encoder behind), ticks it missed, and ticks that found nothing new to grab.
    const ScreenStream::Stats capture1 = engine.captureStats();
    char captureText[120];
    std::snprintf(captureText, sizeof captureText, " skipped_all=%lld late_all=%lld unchanged=%lld",
                  (long long)(capture1.skipped - capture0.skipped),
                  (long long)(capture1.late - capture0.late),
                  (long long)(capture1.unchanged - capture0.unchanged));
    std::string threadFigures = captureText;
    threadFigures += " threads=";
    for (auto &[share, name] : busiest) {
        std::replace(name.begin(), name.end(), ' ', '_'); // the line stays key=value words
        char text[80];
        std::snprintf(text, sizeof text, "%s%s:%.2f", threadFigures.back() != '=' ? "," : "",
                      name.c_str(), share);
        threadFigures += text;
    }
    std::printf(
        "cpu=%.2f fps=%.2f encoded=%.2f rss_mb=%.1f payload_mb=%.1f buffered_s=%.1f%s%s%s\n", cpu,
        fps, encoded, bench::statusMegabytes("VmRSS"), payloadMegabytes(engine.buffer()),
        engine.bufferedDuration(), memoryBreakdown().c_str(), threadFigures.c_str(),
        saveFigures.c_str());
    std::fflush(stdout);
    engine.stop(false).waitForFinished();
    return 0;
}
