#include "engine/PaceWatch.h"

#include <gtest/gtest.h>

namespace {

constexpr int64_t second = 1'000'000'000;

ScreenStream::Stats lost(int64_t skipped, int64_t late = 0)
{
    ScreenStream::Stats stats;
    stats.skipped = skipped;
    stats.late = late;
    return stats;
}

} // namespace

// A save's hiccup, or losing a frame a second, is no news; losing a twentieth of the frames in
// each of two seconds running is told once, with the rate held over them.
TEST(PaceWatch, TellsOnceWhenTwoSecondsRunningLoseFrames)
{
    PaceWatch watch(60);
    EXPECT_EQ(watch.update(lost(0), 0), std::nullopt);
    EXPECT_EQ(watch.update(lost(0), second / 2), std::nullopt); // too soon: not a new second
    EXPECT_EQ(watch.update(lost(10), second), std::nullopt); // one bad second
    EXPECT_EQ(watch.update(lost(11), 2 * second), std::nullopt); // then a good one
    EXPECT_EQ(watch.update(lost(15), 3 * second), std::nullopt); // 4 lost: one bad second
    // 3 skipped and 6 late in this one: two bad seconds running, 13 frames lost in them.
    const std::optional<double> held = watch.update(lost(18, 6), 4 * second);
    ASSERT_TRUE(held.has_value());
    EXPECT_NEAR(*held, 60 - 13.0 / 2, 1e-9);
    // Once told, never again in this arming.
    EXPECT_EQ(watch.update(lost(100, 6), 5 * second), std::nullopt);
    EXPECT_EQ(watch.update(lost(200, 6), 6 * second), std::nullopt);
}

TEST(PaceWatch, ASlowerRateLosesFewerFramesBeforeItIsBehind)
{
    // At 30 frames a second, 2 frames a second lost is already a fifteenth.
    PaceWatch watch(30);
    watch.update(lost(0), 0);
    watch.update(lost(2), second);
    const std::optional<double> held = watch.update(lost(4), 2 * second);
    ASSERT_TRUE(held.has_value());
    EXPECT_NEAR(*held, 28, 1e-9);
}
