#include "capture/ScreenStream.h"
#include "capture/x11/X11ScreenCaptureService.h"
#include "core/SerialQueue.h"
#include "media/MonotonicClock.h"

#include "capture/CaptureRecorders.h"
#include "support/PrivateServers.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <future>
#include <thread>

using namespace capture_test;
using namespace std::chrono_literals;

namespace {

class X11Capture : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_dir.isValid()); }

    std::string dir() const { return m_dir.path().toStdString(); }

    // vantrel_motion with `args`, on `display` (the fixture's when empty), once it has drawn.
    std::unique_ptr<ChildProcess> motion(std::vector<std::string> args,
                                         const std::string &display = {})
    {
        args.insert(args.begin(), VANTREL_MOTION);
        ChildProcess::Environment env;
        if (!display.empty())
            env.push_back({"DISPLAY", display});
        auto child = std::make_unique<ChildProcess>(args, env);
        EXPECT_EQ(child->readLine(10s), "ready");
        return child;
    }

    static void movePointer(int x, int y, const std::string &display = {})
    {
        ChildProcess::Environment env;
        if (!display.empty())
            env.push_back({"DISPLAY", display});
        ASSERT_EQ(
            ChildProcess::run({"xdotool", "mousemove", std::to_string(x), std::to_string(y)}, env),
            0);
    }

    // Starts `stream` with its screen going to `frames`; returns the start's error, if any.
    std::optional<std::string> start(ScreenStream &stream, FrameLog *frames)
    {
        if (frames)
            stream.addScreenOutput(m_video, frames->handler());
        std::promise<std::optional<std::string>> started;
        stream.startCapture([&](std::optional<std::string> error) { started.set_value(error); });
        auto result = started.get_future();
        if (result.wait_for(15s) != std::future_status::ready)
            return "the start never completed";
        return result.get();
    }

    static StreamConfiguration config(int width, int height, bool cursor = false)
    {
        StreamConfiguration c;
        c.width = width;
        c.height = height;
        c.showsCursor = cursor;
        c.capturesAudio = false;
        return c;
    }

    static const FrameRecord *lastComplete(const std::vector<FrameRecord> &frames)
    {
        for (auto it = frames.rbegin(); it != frames.rend(); ++it)
            if (it->status == VideoFrame::Status::complete)
                return &*it;
        return nullptr;
    }

    static size_t completeCount(const std::vector<FrameRecord> &frames)
    {
        return size_t(std::count_if(frames.begin(), frames.end(), [](const FrameRecord &f) {
            return f.status == VideoFrame::Status::complete;
        }));
    }

    // The stop handler's calls, with the number of frames seen when each came.
    struct Stops
    {
        std::mutex lock;
        std::vector<std::string> messages;
        std::condition_variable changed;

        ScreenStream::StopHandler handler()
        {
            return [this](const std::string &why) {
                std::scoped_lock guard(lock);
                messages.push_back(why);
                changed.notify_all();
            };
        }
        bool waitForOne(std::chrono::milliseconds timeout)
        {
            std::unique_lock guard(lock);
            return changed.wait_for(guard, timeout, [&] { return !messages.empty(); });
        }
        std::vector<std::string> all()
        {
            std::scoped_lock guard(lock);
            return messages;
        }
    };

    SerialQueue m_video {"com.quillfen.vantrel.video", "vt-video"};
    SerialQueue m_audio {"com.quillfen.vantrel.audio", "vt-audio"};
    SerialQueue m_mic {"com.quillfen.vantrel.mic", "vt-mic"};
    QTemporaryDir m_dir;
};

// Whether the pixel at (x, y) has the colour 0xRRGGBB, each channel within `tolerance`. The
// capture delivers I420: the way there and back moves a flat colour by a step or two.
::testing::AssertionResult isFlat(const FrameRecord &frame, uint32_t rgb, int x, int y,
                                  int tolerance = 4)
{
    uint32_t pixel;
    std::memcpy(&pixel, frame.pixels.data() + (size_t(y) * size_t(frame.width) + size_t(x)) * 4, 4);
    for (int shift = 0; shift < 24; shift += 8) {
        if (std::abs(int((pixel >> shift) & 0xff) - int((rgb >> shift) & 0xff)) > tolerance) {
            char colour[8];
            std::snprintf(colour, sizeof colour, "%06x", pixel & 0xffffff);
            return ::testing::AssertionFailure()
                << "pixel (" << x << ", " << y << ") is " << colour;
        }
    }
    return ::testing::AssertionSuccess();
}

} // namespace

TEST_F(X11Capture, DeliversSixtyFramesASecondOfRealMotionWithMonotonicTimes)
{
    setenv("VANTREL_CAPTURE", "x11", 1);
    std::unique_ptr<ScreenCaptureService> service = ScreenCaptureService::create();
    const ShareableContent content = service->shareableContent();
    ASSERT_EQ(content.displays.size(), 1u);
    EXPECT_EQ(content.displays[0].width, 1920);
    EXPECT_EQ(content.displays[0].height, 1080);
    movePointer(100, 100);
    EXPECT_EQ(service->pointerLocation(), std::make_pair(100, 100));

    auto moving = motion({});
    FrameLog frames;
    auto stream = service->makeStream(content.displays[0], config(1920, 1080, true));
    ASSERT_EQ(start(*stream, &frames), std::nullopt);
    ASSERT_TRUE(frames.waitFor([](auto &f) { return f.size() >= 150; }, 20s));
    stream->stopCapture();
    const size_t stoppedAt = frames.count();
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(frames.count(), stoppedAt) << "frames after stopCapture() returned";

    const std::vector<FrameRecord> all = frames.frames();
    std::vector<int64_t> intervals;
    for (size_t i = 1; i < all.size(); ++i) {
        ASSERT_GT(all[i].pts, all[i - 1].pts);
        intervals.push_back(all[i].pts - all[i - 1].pts);
    }
    std::nth_element(intervals.begin(), intervals.begin() + intervals.size() / 2, intervals.end());
    EXPECT_NEAR(double(intervals[intervals.size() / 2]), 1e9 / 60, 1.5e6);
    const double rate = double(all.size() - 1) * 1e9 / double(all.back().pts - all.front().pts);
    EXPECT_GT(rate, 40);
    EXPECT_LT(rate, 61);

    // Everything moves, so most frames are full grabs (a busy machine may leave the drawing
    // client a frame behind now and then: an idle tick then), each differing from the last.
    size_t complete = 0, differing = 0, pairs = 0;
    const FrameRecord *previous = nullptr;
    for (const FrameRecord &frame : all) {
        if (frame.status != VideoFrame::Status::complete)
            continue;
        ++complete;
        EXPECT_EQ(frame.width, 1920);
        EXPECT_EQ(frame.height, 1080);
        if (previous) {
            ++pairs;
            differing += frame.hash != previous->hash;
        }
        previous = &frame;
    }
    EXPECT_GT(complete, all.size() / 2);
    EXPECT_GT(differing, pairs * 9 / 10);
}

TEST_F(X11Capture, CatchesEveryDrawOfAProgramDrawingOnItsOwnTicks)
{
    X11ScreenCaptureService service;
    const CaptureDisplay display = service.shareableContent().displays.at(0);
    auto still = motion({"--still"});
    FrameLog frames;
    auto stream = service.makeStream(display, config(1920, 1080, false));
    ASSERT_EQ(start(*stream, &frames), std::nullopt);
    ASSERT_TRUE(frames.waitFor([](auto &f) { return completeCount(f) >= 1; }));
    // The first frame is stamped with a tick of the capture's grid; the program draws at 60 fps
    // on those ticks, so its damage reaches the capture just after it looked, as a game drawing
    // to the same 60 Hz may. Each draw must still be grabbed, not every second one.
    const int64_t tick = frames.frames().front().pts;
    still.reset();
    auto moving = motion({"--phase", std::to_string(tick)});
    const int64_t from = monotonicNanoseconds() + 300'000'000;
    std::this_thread::sleep_for(2300ms);
    stream->stopCapture();

    size_t grabbed = 0;
    for (const FrameRecord &frame : frames.frames())
        grabbed += frame.status == VideoFrame::Status::complete && frame.pts >= from &&
            frame.pts < from + 2'000'000'000;
    // Two seconds of 120 draws (a machine loaded many times over merged up to 13); caught at
    // half the rate, it was 90 to 100.
    EXPECT_GE(grabbed, 104u);
}

TEST_F(X11Capture, StillScreenRepeatsItsPictureOnceASecondUntilThePointerMoves)
{
    X11ScreenCaptureService service;
    const CaptureDisplay display = service.shareableContent().displays.at(0);
    auto still = motion({"--still"});
    movePointer(300, 300);
    FrameLog frames;
    auto stream = service.makeStream(display, config(1920, 1080, true));
    ASSERT_EQ(start(*stream, &frames), std::nullopt);
    std::this_thread::sleep_for(2500ms);

    // The first frame is grabbed; after that the still screen hands the same picture on again
    // about once a second (so that clips of it have a picture to the end), not on each of the
    // 150 ticks, and without grabbing it again.
    std::vector<FrameRecord> all = frames.frames();
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all.front().status, VideoFrame::Status::complete);
    EXPECT_LE(completeCount(all), 3u);
    const size_t repeats = all.size() - completeCount(all);
    EXPECT_GE(repeats, 2u);
    EXPECT_LE(repeats, 6u);
    // After its first still second the thread rests, looking only every fourth tick: about
    // 60 + 90 / 4 looks rather than 150. None of the passed-over ticks counts as lost.
    const ScreenStream::Stats stats = stream->stats();
    EXPECT_LE(stats.unchanged, 100);
    EXPECT_LT(stats.late, 20);
    EXPECT_EQ(stats.idle, int64_t(repeats));
    const FrameRecord *grabbed = lastComplete(all);
    ASSERT_TRUE(grabbed);
    for (size_t i = 1; i < all.size(); ++i) {
        EXPECT_GT(all[i].pts, all[i - 1].pts);
        if (all[i].status == VideoFrame::Status::repeat) {
            EXPECT_TRUE(all[i].hasPixels);
            EXPECT_EQ(all[i].width, 1920);
            EXPECT_EQ(all[i].hash, grabbed->hash);
            EXPECT_GE(all[i].pts - all[i - 1].pts, 900'000'000);
        }
    }

    // A moving pointer is a change on screen even though no window drew anything; a resting
    // capture sees it at its next look.
    const size_t before = completeCount(frames.frames());
    movePointer(900, 600);
    EXPECT_TRUE(frames.waitFor([&](auto &f) { return completeCount(f) > before; }, 5s));
    // Drawing wakes it at once, and it is back at every tick while things move.
    auto moving = motion({});
    EXPECT_TRUE(frames.waitFor([&](auto &f) { return completeCount(f) > before + 30; }, 5s));
    stream->stopCapture();
}

TEST_F(X11Capture, DrawsTheCursorWhereThePointerIs)
{
    constexpr uint32_t flat = 0x203040;
    X11ScreenCaptureService service;
    const CaptureDisplay display = service.shareableContent().displays.at(0);
    auto solid = motion({"--solid", "203040"});
    movePointer(700, 500);

    // Every pixel that is not the flat colour must belong to a cursor drawn at the pointer.
    const auto cursorBox = [&](const FrameRecord &frame) {
        int left = frame.width, top = frame.height, right = -1, bottom = -1;
        for (int y = 0; y < frame.height; ++y)
            for (int x = 0; x < frame.width; ++x)
                if (!isFlat(frame, flat, x, y)) {
                    left = std::min(left, x), right = std::max(right, x);
                    top = std::min(top, y), bottom = std::max(bottom, y);
                }
        return std::array<int, 4> {left, top, right, bottom};
    };

    {
        FrameLog frames(true);
        auto stream = service.makeStream(display, config(1920, 1080, true));
        ASSERT_EQ(start(*stream, &frames), std::nullopt);
        ASSERT_TRUE(frames.waitFor([](auto &f) { return completeCount(f) >= 1; }));
        auto box = cursorBox(*lastComplete(frames.frames()));
        EXPECT_LE(box[0], 700);
        EXPECT_GE(box[2], 700);
        EXPECT_LE(box[1], 500);
        EXPECT_GE(box[3], 500);
        EXPECT_LT(box[2] - box[0], 64);
        EXPECT_LT(box[3] - box[1], 64);

        frames.clear();
        movePointer(1200, 300);
        // A grab can race the move; the frames come to show the pointer where it came to rest.
        EXPECT_TRUE(frames.waitFor(
            [&](auto &f) {
                const FrameRecord *last = lastComplete(f);
                if (!last)
                    return false;
                const auto moved = cursorBox(*last);
                return moved[0] <= 1200 && moved[2] >= 1200 && moved[1] <= 300 && moved[3] >= 300;
            },
            5s));
        stream->stopCapture();
    }

    // Without showsCursor the frame is flat: the X server itself leaves the cursor out.
    FrameLog frames(true);
    auto stream = service.makeStream(display, config(1920, 1080, false));
    ASSERT_EQ(start(*stream, &frames), std::nullopt);
    ASSERT_TRUE(frames.waitFor([](auto &f) { return completeCount(f) >= 1; }));
    EXPECT_EQ(cursorBox(*lastComplete(frames.frames()))[2], -1);
    stream->stopCapture();
}

TEST_F(X11Capture, ScalesTheMonitorToTheCaptureSize)
{
    X11ScreenCaptureService service;
    const CaptureDisplay display = service.shareableContent().displays.at(0);
    auto red = motion({"--solid", "ff0000", "--geometry", "960x1080+0+0"});
    auto blue = motion({"--solid", "0000ff", "--geometry", "960x1080+960+0"});
    constexpr uint32_t redBgra = 0xff0000, blueBgra = 0x0000ff;

    for (auto [width, height] : {std::pair {960, 540}, std::pair {1280, 720}}) {
        SCOPED_TRACE(width);
        FrameLog frames(true);
        auto stream = service.makeStream(display, config(width, height));
        ASSERT_EQ(start(*stream, &frames), std::nullopt);
        ASSERT_TRUE(frames.waitFor([](auto &f) { return completeCount(f) >= 1; }));
        stream->stopCapture();
        const std::vector<FrameRecord> all = frames.frames();
        const FrameRecord &frame = *lastComplete(all);
        ASSERT_EQ(frame.width, width);
        ASSERT_EQ(frame.height, height);
        // The halves meet in the middle of the scaled frame, one pixel either side at most (two
        // with the colour planes at half size). The filter and the way through I420 and back
        // may each take a few levels off a saturated colour.
        const int middle = width / 2;
        for (int y : {0, height / 2, height - 1}) {
            EXPECT_TRUE(isFlat(frame, redBgra, 0, y, 8));
            EXPECT_TRUE(isFlat(frame, redBgra, middle - 2, y, 8));
            EXPECT_TRUE(isFlat(frame, blueBgra, middle + 1, y, 8));
            EXPECT_TRUE(isFlat(frame, blueBgra, width - 1, y, 8));
        }
    }
}

TEST_F(X11Capture, EndsOnceWhenTheXServerDies)
{
    PrivateServer x = startXvfb(dir(), "1280x720");
    ASSERT_TRUE(x.server) << x.error;
    X11ScreenCaptureService service(x.address);
    const CaptureDisplay display = service.shareableContent().displays.at(0);
    auto moving = motion({}, x.address);

    FrameLog frames;
    Stops stops;
    auto stream = service.makeStream(display, config(1280, 720));
    stream->setStopHandler(stops.handler());
    ASSERT_EQ(start(*stream, &frames), std::nullopt);
    ASSERT_TRUE(frames.waitFor([](auto &f) { return f.size() >= 10; }));

    x.server->signal(SIGKILL);
    ASSERT_TRUE(stops.waitForOne(5s));
    const size_t framesAtStop = frames.count();
    std::this_thread::sleep_for(300ms);
    stream->stopCapture();
    ASSERT_EQ(stops.all().size(), 1u);
    EXPECT_NE(stops.all()[0].find("X server"), std::string::npos) << stops.all()[0];
    // A frame already being handed over may land; nothing new is grabbed.
    EXPECT_LE(frames.count(), framesAtStop + 1);

    // With the server gone, a new stream fails to start and says why.
    auto next = service.makeStream(display, config(1280, 720));
    const std::optional<std::string> error = start(*next, nullptr);
    ASSERT_TRUE(error);
    EXPECT_NE(error->find("Could not open the X display"), std::string::npos) << *error;
    EXPECT_THROW(service.shareableContent(), std::runtime_error);
}

TEST_F(X11Capture, CapturesTheMonitorUnderThePointerAndEndsWhenItIsUnplugged)
{
    PrivateServer x = startXorgDummy(dir());
    if (!x.server)
        GTEST_SKIP() << "Xorg with the dummy driver cannot run here: " << x.error;
    const ChildProcess::Environment env {{"DISPLAY", x.address}};
    ASSERT_EQ(ChildProcess::run({"xrandr", "--addmode", "DUMMY1", "1920x1080"}, env), 0);
    ASSERT_EQ(ChildProcess::run(
                  {"xrandr", "--output", "DUMMY1", "--mode", "1920x1080", "--pos", "1920x0"}, env),
              0);

    X11ScreenCaptureService service(x.address);
    const std::vector<CaptureDisplay> displays = service.shareableContent().displays;
    ASSERT_EQ(displays.size(), 2u);
    movePointer(2500, 500, x.address);
    const std::optional<CaptureDisplay> chosen =
        chooseCaptureDisplay(displays, service.pointerLocation());
    ASSERT_TRUE(chosen);
    EXPECT_EQ(chosen->x, 1920);
    EXPECT_FALSE(chosen->primary);

    // Motion on the chosen monitor only: the first one stays still, so real motion in the
    // frames means the right monitor is captured.
    auto moving = motion({"--geometry", "1920x1080+1920+0"}, x.address);
    FrameLog frames;
    Stops stops;
    auto stream = service.makeStream(
        *chosen, StreamConfiguration {.showsCursor = false, .capturesAudio = false});
    stream->setStopHandler(stops.handler());
    ASSERT_EQ(start(*stream, &frames), std::nullopt);
    ASSERT_TRUE(frames.waitFor([](auto &f) { return completeCount(f) >= 20; }, 10s));
    const std::vector<FrameRecord> all = frames.frames();
    EXPECT_EQ(lastComplete(all)->width, 1920);
    EXPECT_EQ(lastComplete(all)->height, 1080);
    EXPECT_GT(completeCount(all), all.size() * 8 / 10);

    ASSERT_EQ(ChildProcess::run({"xrandr", "--output", "DUMMY1", "--off"}, env), 0);
    ASSERT_TRUE(stops.waitForOne(5s));
    std::this_thread::sleep_for(200ms);
    stream->stopCapture();
    ASSERT_EQ(stops.all().size(), 1u);
    EXPECT_NE(stops.all()[0].find("disconnected"), std::string::npos) << stops.all()[0];
}

TEST_F(X11Capture, RecordsTheMicrophoneOnlyWhenAsked)
{
    const std::string tone = dir() + "/tone.wav";
    ASSERT_EQ(ChildProcess::run({"ffmpeg", "-loglevel", "error", "-f", "lavfi", "-i",
                                 "sine=f=1000:r=48000:d=1", "-ac", "2", tone}),
              0);
    X11ScreenCaptureService service;
    const CaptureDisplay display = service.shareableContent().displays.at(0);

    for (bool microphone : {false, true}) {
        SCOPED_TRACE(microphone);
        StreamConfiguration c = config(640, 360);
        c.capturesAudio = true;
        c.captureMicrophone = microphone;
        AudioLog system, mic;
        auto stream = service.makeStream(display, c);
        stream->addAudioOutput(StreamOutputType::audio, m_audio, system.handler());
        stream->addAudioOutput(StreamOutputType::microphone, m_mic, mic.handler());
        ASSERT_EQ(start(*stream, nullptr), std::nullopt);
        // A fresh null sink may take a while to start handing out its monitor.
        ASSERT_TRUE(system.waitFor(10));
        // The fixture's default source is the monitor of its second null sink: what plays
        // there is what the microphone hears.
        ASSERT_EQ(ChildProcess::run({"paplay", "-d", "test_mic_source", tone}), 0);
        std::this_thread::sleep_for(300ms);
        stream->stopCapture();

        EXPECT_GT(system.packets().size(), 12u);
        EXPECT_EQ(toneFrequency(system.packets()), 0) << "the tone leaked into system audio";
        if (microphone)
            EXPECT_NEAR(toneFrequency(mic.packets()), 1000, 15);
        else
            EXPECT_TRUE(mic.packets().empty());
    }
}

TEST_F(X11Capture, EndsOnceWhenTheAudioServerDies)
{
    PrivateServer pulse = startPulse(dir());
    ASSERT_TRUE(pulse.server) << pulse.error;
    setenv("PULSE_SERVER", pulse.address.c_str(), 1);
    X11ScreenCaptureService service;
    const CaptureDisplay display = service.shareableContent().displays.at(0);
    StreamConfiguration c = config(640, 360);
    c.capturesAudio = true;

    AudioLog system;
    FrameLog frames;
    Stops stops;
    auto stream = service.makeStream(display, c);
    stream->addAudioOutput(StreamOutputType::audio, m_audio, system.handler());
    stream->setStopHandler(stops.handler());
    ASSERT_EQ(start(*stream, &frames), std::nullopt);
    ASSERT_TRUE(system.waitFor(10));

    pulse.server->signal(SIGKILL);
    ASSERT_TRUE(stops.waitForOne(5s));
    const size_t framesAtStop = frames.count();
    std::this_thread::sleep_for(300ms);
    stream->stopCapture();
    ASSERT_EQ(stops.all().size(), 1u);
    EXPECT_NE(stops.all()[0].find("audio server"), std::string::npos) << stops.all()[0];
    EXPECT_LE(frames.count(), framesAtStop + 1) << "video went on after the stream ended";

    auto next = service.makeStream(display, c);
    next->addAudioOutput(StreamOutputType::audio, m_audio, system.handler());
    const std::optional<std::string> error = start(*next, nullptr);
    ASSERT_TRUE(error);
    EXPECT_NE(error->find("audio server"), std::string::npos) << *error;
}
