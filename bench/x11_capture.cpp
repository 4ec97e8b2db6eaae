// Screen capture cost: the CPU this process spends capturing a 1920x1080 X screen at 60 fps while
// every pixel changes every frame, while the screen is still, and while moving content is scaled
// to 1280x720. A private Xvfb and the vantrel_motion tool provide the screen; the X server's own
// CPU is shown beside ours (it does the copying of each grab). Rounds alternate between the
// scenarios and the medians are reported.

#include "BenchSupport.h"

#include "capture/x11/X11ScreenCaptureService.h"
#include "capture/x11/X11ScreenStream.h"
#include "core/SerialQueue.h"
#include "support/PrivateServers.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

namespace {

constexpr double measureSeconds = 4;
constexpr int rounds = 3;

struct Sample
{
    double ours = 0; // percent of one core
    double server = 0;
    double fps = 0; // frames delivered per second, idle ones included
    double completeFps = 0;
};

Sample measure(ScreenCaptureService &service, const CaptureDisplay &display, int width, int height,
               pid_t serverPid)
{
    StreamConfiguration config;
    config.width = width;
    config.height = height;
    config.capturesAudio = false;
    SerialQueue video("com.quillfen.vantrel.video", "vt-video");
    std::atomic<int64_t> frames {0}, complete {0};
    std::atomic<uint32_t> touched {0};
    auto stream = service.makeStream(display, config);
    stream->addScreenOutput(video, [&](const VideoFrame &frame) {
        frames.fetch_add(1);
        if (frame.status == VideoFrame::Status::complete) {
            complete.fetch_add(1);
            // Read one row, as a consumer would start to.
            uint32_t sum = 0;
            for (int x = 0; x < frame.stride; x += 64)
                sum += frame.pixels[size_t(frame.height / 2) * size_t(frame.stride) + size_t(x)];
            touched.fetch_add(sum);
        }
    });
    std::atomic<bool> started {false};
    stream->startCapture([&](std::optional<std::string> error) {
        if (error)
            std::fprintf(stderr, "start failed: %s\n", error->c_str());
        started.store(!error);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(800)); // settle
    const double ours0 = bench::cpuSeconds(0), server0 = bench::cpuSeconds(serverPid);
    const int64_t frames0 = frames.load(), complete0 = complete.load();
    const auto t0 = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(measureSeconds));
    const double elapsed = bench::secondsSince(t0);
    Sample sample {(bench::cpuSeconds(0) - ours0) / elapsed * 100,
                   (bench::cpuSeconds(serverPid) - server0) / elapsed * 100,
                   double(frames.load() - frames0) / elapsed,
                   double(complete.load() - complete0) / elapsed};
    stream->stopCapture();
    return sample;
}

} // namespace

int main()
{
    const std::string home = bench::isolateHome();
    PrivateServer x = startXvfb(home);
    if (!x.server) {
        std::fprintf(stderr, "%s\n", x.error.c_str());
        return 1;
    }
    X11ScreenCaptureService service(x.address);
    const std::optional<CaptureDisplay> display =
        chooseCaptureDisplay(service.shareableContent().displays, service.pointerLocation());
    if (!display)
        return 1;
    const std::string motionPath = std::string(VANTREL_BIN_DIR) + "/vantrel_motion";
    const ChildProcess::Environment env {{"DISPLAY", x.address}};

    std::map<std::string, std::vector<Sample>> results;
    for (int round = 0; round < rounds; ++round) {
        {
            ChildProcess motion({motionPath}, env);
            motion.readLine(std::chrono::seconds(10));
            results["motion 1920x1080"].push_back(
                measure(service, *display, 1920, 1080, x.server->pid()));
            results["motion scaled to 1280x720"].push_back(
                measure(service, *display, 1280, 720, x.server->pid()));
        }
        ChildProcess still({motionPath, "--still"}, env);
        still.readLine(std::chrono::seconds(10));
        results["still 1920x1080"].push_back(
            measure(service, *display, 1920, 1080, x.server->pid()));
    }

    double stillCpu = 0;
    for (const auto &[name, samples] : results) {
        std::vector<double> ours, server, fps, complete;
        for (const Sample &s : samples) {
            ours.push_back(s.ours);
            server.push_back(s.server);
            fps.push_back(s.fps);
            complete.push_back(s.completeFps);
        }
        std::printf("%-26s capture %5.1f %% of a core, X server %5.1f %%, %5.1f frames/s "
                    "(%5.1f grabbed)\n",
                    name.c_str(), bench::median(ours), bench::median(server), bench::median(fps),
                    bench::median(complete));
        if (name.starts_with("still"))
            stillCpu = bench::median(ours);
    }
    char figure[64];
    std::snprintf(figure, sizeof figure, "%.1f %% of a core on a still screen", stillCpu);
    return bench::verdict("x11_capture", figure, "<= 2 %", stillCpu <= 2.0);
}
