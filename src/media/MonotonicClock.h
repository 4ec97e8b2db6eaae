#pragma once

#include "media/MediaTime.h"

#include <cstdint>
#include <ctime>

// The capture clock: CLOCK_MONOTONIC in nanoseconds. Screen frames and audio packets are both
// stamped on it, so their times compare directly; the clip's A/V sync rests on that.
inline int64_t monotonicNanoseconds()
{
    timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

inline MediaTime nanosecondTime(int64_t nanoseconds)
{
    return MediaTime::make(nanoseconds, MediaTime::maxTimescale);
}
