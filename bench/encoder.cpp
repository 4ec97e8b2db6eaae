// The video encoder's cost against FFmpeg's own libx264 path on the same frames: 1920x1080 BGRA
// with motion in every pixel, encoded with the same settings. Ours converts with libyuv and
// encodes in-process through the replay buffer; the peer is the ffmpeg program reading the raw
// frames from a pipe (converting them with swscale). Each side's process CPU time is counted
// (ours from getrusage around the run, the peer's from wait4), runs alternate, medians are
// reported. The peer runs twice, fed through a pipe and reading a file of the frames itself (the
// pipe's copies are part of its cost, though not of its encoder's); both ratios are given. Also
// reports the highest frame rate each side holds and the bytes stored per
// second against the 8,000,000-byte cap.

#include "BenchSupport.h"

#include "core/ClipSettings.h"
#include "replay/ReplayBuffer.h"
#include "replay/VideoEncoder.h"

extern "C" {
#include <libavutil/log.h>
}

#include <libyuv/convert_from_argb.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <mutex>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

constexpr int width = 1920;
constexpr int height = 1080;
constexpr int frames = 600; // ten seconds of video
constexpr int runs = 5;
// The frames are windows onto one wider picture, moved a few pixels each frame, so every pixel
// changes every frame without holding 600 pictures in memory.
constexpr int slack = 1024;
constexpr int wideWidth = width + slack;
constexpr int step = 6; // pixels per frame

// The x264 settings the encoder uses, spelled for the ffmpeg program.
const char *const x264Peer[] = {
    "-c:v",        "libx264",    "-preset", "ultrafast",    "-tune",
    "zerolatency", "-profile:v", "high",    "-x264-params", "8x8dct=1:forced-idr=1",
    "-threads",    "2",          "-b:v",    "18M",          "-maxrate",
    "64M",         "-bufsize",   "64M",     "-g",           "120",
    "-bf",         "0"};

struct Picture
{
    std::vector<uint8_t> pixels = std::vector<uint8_t>(size_t(wideWidth) * height * 4);

    Picture()
    {
        // A colour gradient with bars and a fine grain on top: detail for the encoder to spend
        // bits on, and no two windows alike.
        uint32_t seed = 12345;
        uint8_t *p = pixels.data();
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < wideWidth; ++x, p += 4) {
                seed = seed * 1664525u + 1013904223u;
                const int grain = int(seed >> 28) - 8;
                const bool bar = (x / 97 + y / 61) % 5 == 0;
                p[0] = uint8_t(std::clamp(x * 255 / wideWidth + grain, 0, 255));
                p[1] = uint8_t(std::clamp((bar ? 220 : y * 255 / height) + grain, 0, 255));
                p[2] = uint8_t(std::clamp(((x + y) / 8 % 256) + grain, 0, 255));
                p[3] = 255;
            }
        }
    }

    const uint8_t *window(int index) const
    {
        const int offset = (index * step) % slack;
        return pixels.data() + size_t(offset) * 4;
    }
};

double cpuSeconds(const rusage &usage)
{
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
        double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

struct Run
{
    double cpuPerFrame = 0; // seconds
    double fps = 0;
    bool ok = false;
};

struct OurRun : Run
{
    double bytesPerSecond = 0;
    double peakBytesInASecond = 0;
};

// Ours: frames are handed over as fast as the encoder takes them (two in flight, as its queue
// allows), so the rate is the most it can hold.
OurRun runOurs(const Picture &picture)
{
    OurRun out;
    ReplayBuffer buffer;
    std::mutex lock;
    std::condition_variable returned;
    std::atomic<int64_t> stored = 0;
    buffer.setOnVideoFrame([&](const ReplayBuffer::EncodedFrame &, const VideoFormatPtr &) {
        ++stored;
        std::scoped_lock wake(lock);
        returned.notify_one();
    });
    int64_t handedOver = 0;

    rusage before {}, after {};
    getrusage(RUSAGE_SELF, &before);
    const auto start = std::chrono::steady_clock::now();
    // The encoder feeds the buffer as the capture engine wires them.
    auto encoder = std::make_unique<VideoEncoder>(
        width, height, [&](EncodedFrame encoded, VideoFormatPtr keyFormat) {
            buffer.appendVideo(std::move(encoded), std::move(keyFormat));
        });
    VideoFrame frame;
    frame.stride = wideWidth * 4;
    frame.width = width;
    frame.height = height;
    for (int i = 0; i < frames; ++i) {
        {
            std::unique_lock wait(lock);
            returned.wait(wait, [&] { return handedOver - stored < 2; });
        }
        frame.pixels = picture.window(i);
        frame.pts = MediaTime::make(i, 60);
        encoder->encode(frame);
        ++handedOver;
    }
    {
        std::unique_lock wait(lock);
        returned.wait_for(wait, std::chrono::seconds(10), [&] { return stored == frames; });
    }
    const double wall = bench::secondsSince(start);
    const auto snap = buffer.snapshot();
    encoder.reset();
    buffer.invalidate();
    getrusage(RUSAGE_SELF, &after);

    out.ok = stored == frames && handedOver == frames;
    out.cpuPerFrame = (cpuSeconds(after) - cpuSeconds(before)) / frames;
    out.fps = frames / wall;
    // Bytes per second of video, and the most bytes in any 60 consecutive frames (one second).
    std::vector<double> sizes;
    for (const auto &f : snap.video)
        sizes.push_back(double(f.data.size()));
    double total = 0, window = 0;
    for (size_t i = 0; i < sizes.size(); ++i) {
        total += sizes[i];
        window += sizes[i] - (i >= 60 ? sizes[i - 60] : 0);
        out.peakBytesInASecond = std::max(out.peakBytesInASecond, window);
    }
    out.bytesPerSecond = total / (double(sizes.size()) / 60.0);
    return out;
}

// The libyuv conversion alone, on this thread: the part of our cost that is not x264.
double conversionCpuPerFrame(const Picture &picture)
{
    std::vector<uint8_t> y(size_t(width) * height), u(y.size() / 4), v(y.size() / 4);
    rusage before {}, after {};
    getrusage(RUSAGE_THREAD, &before);
    for (int i = 0; i < frames; ++i)
        libyuv::ARGBToI420(picture.window(i), wideWidth * 4, y.data(), width, u.data(), width / 2,
                           v.data(), width / 2, width, height);
    getrusage(RUSAGE_THREAD, &after);
    return (cpuSeconds(after) - cpuSeconds(before)) / frames;
}

// The machine is shared: the load around the runs says how far the frame rates are its doing.
std::string loadAverage()
{
    char text[64] = {};
    if (FILE *file = std::fopen("/proc/loadavg", "r")) {
        if (!std::fgets(text, sizeof text, file))
            text[0] = 0;
        std::fclose(file);
    }
    std::string out = text;
    return out.substr(0, out.find(' '));
}

bool writeAll(int fd, const uint8_t *data, size_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= size_t(n);
    }
    return true;
}

// The peer's frames as a file it reads itself: the first fifth of ours, which it plays five times
// over (-stream_loop), so the file stays at 1.2 GB. Written once, to memory when /dev/shm is
// there, so that neither the pipe's copies nor a disk enter the peer's figure.
constexpr int fileFrames = frames / 5;

std::string writeFrameFile(const Picture &picture)
{
    const std::string folder = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    const std::string path = folder + "/vantrel-bench-frames.bgra";
    FILE *file = std::fopen(path.c_str(), "wb");
    if (!file)
        return {};
    bool ok = true;
    for (int i = 0; i < fileFrames && ok; ++i) {
        const uint8_t *src = picture.window(i);
        for (int y = 0; y < height && ok; ++y)
            ok = std::fwrite(src + size_t(y) * wideWidth * 4, 1, size_t(width) * 4, file) ==
                size_t(width) * 4;
    }
    ok = std::fclose(file) == 0 && ok;
    if (!ok) {
        std::remove(path.c_str());
        return {};
    }
    return path;
}

// The peer: the ffmpeg program, fed the same frames through its standard input, or reading them
// from `file` when one is given.
Run runPeer(const Picture &picture, const std::string &file = {})
{
    Run out;
    int pipeFds[2];
    if (pipe(pipeFds) != 0)
        return out;
    std::vector<std::string> args {"ffmpeg", "-hide_banner", "-loglevel", "error",
                                   "-f",     "rawvideo",     "-pix_fmt",  "bgra",
                                   "-s",     "1920x1080",    "-r",        "60"};
    if (file.empty())
        args.insert(args.end(), {"-i", "pipe:0"});
    else
        args.insert(args.end(),
                    {"-stream_loop", std::to_string(frames / fileFrames - 1), "-i", file});
    args.insert(args.end(), std::begin(x264Peer), std::end(x264Peer));
    args.insert(args.end(), {"-pix_fmt", "yuv420p", "-f", "null", "-"});
    std::vector<char *> argv;
    for (auto &arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[0], STDIN_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipeFds[1]);
    pid_t pid = 0;
    const auto start = std::chrono::steady_clock::now();
    const int spawned = posix_spawnp(&pid, "ffmpeg", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[0]);
    if (spawned != 0) {
        close(pipeFds[1]);
        return out;
    }
    std::vector<uint8_t> frame(size_t(width) * height * 4);
    bool written = true;
    for (int i = 0; i < frames && written && file.empty(); ++i) {
        const uint8_t *src = picture.window(i);
        for (int y = 0; y < height; ++y)
            std::memcpy(frame.data() + size_t(y) * width * 4, src + size_t(y) * wideWidth * 4,
                        size_t(width) * 4);
        written = writeAll(pipeFds[1], frame.data(), frame.size());
    }
    close(pipeFds[1]);
    int status = 0;
    rusage usage {};
    wait4(pid, &status, 0, &usage);
    const double wall = bench::secondsSince(start);
    out.ok = written && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    out.cpuPerFrame = cpuSeconds(usage) / frames;
    out.fps = frames / wall;
    return out;
}

} // namespace

int main()
{
    bench::isolateHome();
    setenv("VANTREL_ENCODER", "libx264", 1);
    // x264's statistics at every close would bury the figures.
    av_log_set_level(AV_LOG_ERROR);
    signal(SIGPIPE, SIG_IGN);
    const Picture picture;
    const std::string frameFile = writeFrameFile(picture);

    const std::string loadBefore = loadAverage();
    std::vector<double> ourCpu, peerCpu, ratios, ourFps, peerFps, rates, peaks, conversion;
    std::vector<double> fileCpu, fileRatios;
    bool ok = true;
    for (int run = 0; run < runs; ++run) {
        // Alternate, so a busy spell on the shared machine falls on both sides alike.
        const OurRun ours = runOurs(picture);
        const Run peer = runPeer(picture);
        const Run fromFile = frameFile.empty() ? Run {} : runPeer(picture, frameFile);
        ok = ok && ours.ok && peer.ok && fromFile.ok;
        std::printf("run %d: ours %.2f ms/frame %.0f fps, ffmpeg from the pipe %.2f ms/frame %.0f "
                    "fps, from a file %.2f ms/frame\n",
                    run + 1, ours.cpuPerFrame * 1e3, ours.fps, peer.cpuPerFrame * 1e3, peer.fps,
                    fromFile.cpuPerFrame * 1e3);
        fileCpu.push_back(fromFile.cpuPerFrame);
        fileRatios.push_back(ours.cpuPerFrame / fromFile.cpuPerFrame);
        std::fflush(stdout);
        ourCpu.push_back(ours.cpuPerFrame);
        peerCpu.push_back(peer.cpuPerFrame);
        ratios.push_back(ours.cpuPerFrame / peer.cpuPerFrame);
        ourFps.push_back(ours.fps);
        peerFps.push_back(peer.fps);
        rates.push_back(ours.bytesPerSecond);
        conversion.push_back(conversionCpuPerFrame(picture));
        peaks.push_back(ours.peakBytesInASecond);
    }
    if (!ok)
        std::printf("a run failed: not every frame came back, or ffmpeg did not finish\n");

    std::printf("load average (1 min): %s before the runs, %s after, on %ld cores\n",
                loadBefore.c_str(), loadAverage().c_str(), sysconf(_SC_NPROCESSORS_ONLN));
    const double ratio = bench::median(ratios);
    const double fps = bench::median(ourFps);
    std::printf("CPU per frame, ours:   %.2f ms (median of %d)\n", bench::median(ourCpu) * 1e3,
                runs);
    std::printf("CPU per frame, ffmpeg: %.2f ms from the pipe, %.2f ms reading a file itself "
                "(medians of %d)\n",
                bench::median(peerCpu) * 1e3, bench::median(fileCpu) * 1e3, runs);
    std::printf("  of which the libyuv conversion: %.2f ms\n", bench::median(conversion) * 1e3);
    std::printf("CPU ratio ours / ffmpeg: %.2f against the pipe, %.2f against the file (medians "
                "of per-run ratios)\n",
                ratio, bench::median(fileRatios));
    if (!frameFile.empty())
        std::remove(frameFile.c_str());
    std::printf("frame rate held, ours: %.0f fps; ffmpeg: %.0f fps\n", fps, bench::median(peerFps));
    std::printf("stored: %.1f Mbit/s on average, at most %.2f MB in one second (cap 8.00 MB)\n",
                bench::median(rates) * 8 / 1e6,
                *std::max_element(peaks.begin(), peaks.end()) / 1e6);

    const bool pass = ok && ratio <= 0.7 && fps >= 60;
    char figure[200];
    std::snprintf(figure, sizeof figure,
                  "CPU ratio %.2f of ffmpeg from a pipe (%.2f of ffmpeg reading a file), %.0f fps",
                  ratio, bench::median(fileRatios), fps);
    return bench::verdict("encoder", figure, "CPU ratio <= 0.70, >= 60 fps", pass);
}
