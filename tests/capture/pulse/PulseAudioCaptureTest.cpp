#include "capture/pulse/PulseAudioCapture.h"
#include "core/SerialQueue.h"
#include "media/MonotonicClock.h"

#include "capture/CaptureRecorders.h"
#include "support/ChildProcess.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

using namespace capture_test;
using namespace std::chrono_literals;

// A 1 kHz tone played into the default sink comes back from its monitor: at its pitch, in packets
// of about 40 ms whose times follow on from each other, on the capture clock, close to when
// it was played.
TEST(PulseAudioCaptureTest, RecordsTheSinkMonitorInContinuousFortyMillisecondBlocks)
{
    QTemporaryDir dir;
    const std::string tone = dir.filePath(QStringLiteral("tone.wav")).toStdString();
    ASSERT_EQ(ChildProcess::run({"ffmpeg", "-loglevel", "error", "-f", "lavfi", "-i",
                                 "sine=f=1000:r=48000:d=1", "-ac", "2", tone}),
              0);

    SerialQueue queue("com.quillfen.vantrel.audio", "vt-audio");
    AudioLog log;
    PulseAudioCapture capture;
    capture.addOutput(PulseAudioCapture::Source::system, queue, log.handler());
    capture.start();
    // A fresh null sink may take a while to start handing out its monitor, and its first
    // latency report is far off; by a second and a half it has settled.
    ASSERT_TRUE(log.waitFor(38));
    const int64_t playedAfter = monotonicNanoseconds();
    ASSERT_EQ(ChildProcess::run({"paplay", tone}), 0);
    const int64_t playedBefore = monotonicNanoseconds();
    std::this_thread::sleep_for(300ms);
    capture.stop();
    const std::vector<AudioRecord> packets = log.packets();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(log.packets().size(), packets.size()) << "packets after stop() returned";

    EXPECT_NEAR(toneFrequency(packets), 1000, 15);
    ASSERT_GT(packets.size(), 25u);
    const PulseAudioCapture::Stats stats = capture.stats(PulseAudioCapture::Source::system);
    EXPECT_EQ(stats.dropped, 0);
    std::vector<int64_t> durations;
    int breaks = 0;
    for (size_t i = 0; i < packets.size(); ++i) {
        const AudioRecord &p = packets[i];
        ASSERT_EQ(p.channels, 2);
        ASSERT_EQ(p.samples.size(), size_t(p.frames) * 2);
        EXPECT_LE(p.frames, 1920 + 720);
        EXPECT_NEAR(double(p.duration), p.frames * 1e9 / 48000, 1);
        durations.push_back(p.duration);
        if (i > 0) {
            ASSERT_GT(p.pts, packets[i - 1].pts);
            // One nanosecond of rounding in the sample count is fine.
            breaks += std::abs(p.pts - (packets[i - 1].pts + packets[i - 1].duration)) > 1;
        }
    }
    EXPECT_LE(breaks, stats.reanchors + stats.holes);
    EXPECT_LE(stats.reanchors, 5); // the null sink's latency settles, paplay joins and leaves
    std::nth_element(durations.begin(), durations.begin() + durations.size() / 2, durations.end());
    EXPECT_NEAR(double(durations[durations.size() / 2]), 40e6, 1e6);

    // The tone starts between paplay's start and end, on the monotonic clock.
    const std::vector<float> left = firstChannel(packets);
    const auto loud = std::find_if(left.begin(), left.end(), [](float s) { return s > 0.05f; });
    ASSERT_NE(loud, left.end());
    const int64_t onset =
        packets.front().pts + int64_t(loud - left.begin()) * 1'000'000'000 / 48000;
    EXPECT_GT(onset, playedAfter);
    EXPECT_LT(onset, playedBefore);
}
