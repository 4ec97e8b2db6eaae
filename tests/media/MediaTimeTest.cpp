#include "media/MediaTime.h"

#include <gtest/gtest.h>

TEST(MediaTime, ComparesAndSubtractsExactlyAcrossTimescales)
{
    const auto third = MediaTime::make(1, 3);
    const auto nanosBelowThird = MediaTime::make(333'333'333, 1'000'000'000);
    EXPECT_LT(nanosBelowThird, third);
    EXPECT_EQ(MediaTime::make(2, 6), third);
    EXPECT_EQ(MediaTime::make(120, 600), MediaTime::make(200'000'000, 1'000'000'000));

    // 1/60 - 1/48000 on the least common multiple, exactly.
    const auto diff = MediaTime::make(1, 60) - MediaTime::make(1, 48000);
    EXPECT_EQ(diff, MediaTime::make(799, 48000));
    // No common timescale fits: nanoseconds, rounded.
    const auto rounded = MediaTime::make(1, 7) - MediaTime::make(1, 999'999'937);
    EXPECT_EQ(rounded.timescale, MediaTime::maxTimescale);
    EXPECT_NEAR(rounded.seconds(), 1.0 / 7, 1e-9);

    EXPECT_EQ(max(MediaTime::zero(), MediaTime::make(-5, 600)), MediaTime::zero());
    EXPECT_EQ(MediaTime::fromSeconds(-0.25, 600), MediaTime::make(-150, 600));
    EXPECT_EQ(MediaTime::make(1001, 1000).converted(600), MediaTime::make(601, 600));

    // Invalid times sort after every valid one and poison arithmetic.
    EXPECT_LT(MediaTime::make(1'000'000, 1), MediaTime::invalid());
    EXPECT_EQ(MediaTime::invalid(), MediaTime::invalid());
    EXPECT_FALSE((MediaTime::invalid() - third).isValid());
    EXPECT_FALSE(MediaTime::make(1, 0).isValid());
}
