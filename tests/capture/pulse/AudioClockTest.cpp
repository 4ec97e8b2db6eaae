#include "capture/pulse/AudioClock.h"

#include <gtest/gtest.h>

namespace {

constexpr int64_t ms = 1'000'000;
constexpr int64_t packet = 10 * ms; // 480 samples at 48 kHz

} // namespace

// Late measurements (a busy server hands several packets over at once) must not reach the
// timeline: it stays exactly contiguous.
TEST(AudioClock, KeepsPacketsContiguousThroughLateMeasurements)
{
    AudioClock clock(48000, 5 * ms);
    const int64_t start = 1'000'000 * ms;
    int64_t expectedTime = start;
    for (int i = 0; i < 300; ++i) {
        // Every 20th packet arrives 30 ms late, the next two 20 and 10 ms late (a burst).
        const int phase = i % 20;
        const int64_t late = phase < 3 && i > 0 ? (3 - phase) * 10 * ms : (i % 3) * ms / 2;
        const AudioClock::Stamp stamp = clock.stamp(start + i * packet + late, 480);
        ASSERT_EQ(stamp.skip, 0);
        ASSERT_EQ(stamp.time, expectedTime) << "packet " << i;
        expectedTime += packet;
    }
    EXPECT_EQ(clock.reanchors(), 0);
}

// A real gap (samples lost without a hole being reported) moves the timeline forward by the
// earliest of the late measurements; a backward move cuts the samples that would overlap, so
// times keep increasing and packets never overlap.
TEST(AudioClock, FollowsLastingDriftForwardAndCutsOverlapBackward)
{
    AudioClock clock(48000, 5 * ms, 10);
    int64_t measured = 0;
    int64_t lastEnd = -1;
    const auto feed = [&](int packets, int64_t noise) {
        for (int i = 0; i < packets; ++i) {
            const AudioClock::Stamp stamp = clock.stamp(measured + (i % 2) * noise, 480);
            const int64_t kept = 480 - stamp.skip;
            if (kept > 0) {
                EXPECT_GE(stamp.time, lastEnd);
                lastEnd = stamp.time + kept * 1'000'000'000 / 48000;
            }
            measured += packet;
        }
    };
    feed(50, 0);
    measured += 50 * ms; // 50 ms of audio never arrived
    feed(20, 3 * ms);
    EXPECT_EQ(clock.reanchors(), 1);
    // Caught up to the earliest measurement: the next packet lands exactly there.
    AudioClock::Stamp stamp = clock.stamp(measured, 480);
    EXPECT_EQ(stamp.time, measured);
    measured += packet;

    // The estimate jumps 700 ms back (a sink whose latency report settles): after the patience
    // the timeline follows, cutting 700 ms of samples in all, then runs on contiguously.
    measured -= 700 * ms;
    int64_t cut = 0;
    for (int i = 0; i < 100; ++i) {
        stamp = clock.stamp(measured, 480);
        cut += stamp.skip;
        if (stamp.skip < 480) {
            EXPECT_GE(stamp.time, lastEnd);
            lastEnd = stamp.time + (480 - stamp.skip) * 1'000'000'000 / 48000;
        }
        measured += packet;
    }
    EXPECT_EQ(clock.reanchors(), 2);
    EXPECT_NEAR(double(cut), 48000 * 0.7, 480 * 10 + 1); // the patience's packets were kept
    EXPECT_NEAR(double(lastEnd), double(measured), 1);

    // After a reported hole the next packet anchors at once, wherever it was measured.
    clock.reset();
    stamp = clock.stamp(measured + 3000 * ms, 480);
    EXPECT_EQ(stamp.time, measured + 3000 * ms);
    EXPECT_EQ(clock.reanchors(), 3);
}
