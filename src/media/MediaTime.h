#pragma once

#include <compare>
#include <cstdint>

// A rational media time: `value` / `timescale` seconds. Comparison and arithmetic are exact
// (128-bit cross products); a result whose exact timescale would not fit is rounded to
// nanoseconds. An invalid time compares equal to other invalid times and after every valid one.
struct MediaTime
{
    static constexpr int32_t maxTimescale = 1'000'000'000;

    int64_t value = 0;
    int32_t timescale = 0;
    bool valid = false;

    static constexpr MediaTime make(int64_t value, int32_t timescale)
    {
        return timescale > 0 ? MediaTime {value, timescale, true} : MediaTime {};
    }
    static constexpr MediaTime invalid() { return {}; }
    static constexpr MediaTime zero() { return make(0, 1); }
    // Seconds rounded to the nearest tick of `timescale`, halves away from zero.
    static MediaTime fromSeconds(double seconds, int32_t timescale);

    bool isValid() const { return valid; }
    bool isZero() const { return valid && value == 0; }
    double seconds() const { return valid ? double(value) / double(timescale) : 0.0; }
    // The same time on another timescale, rounded halves away from zero.
    MediaTime converted(int32_t newTimescale) const;

    friend std::strong_ordering operator<=>(const MediaTime &a, const MediaTime &b);
    friend bool operator==(const MediaTime &a, const MediaTime &b)
    {
        return (a <=> b) == std::strong_ordering::equal;
    }
    // Invalid when either side is invalid.
    friend MediaTime operator-(const MediaTime &a, const MediaTime &b);
    friend MediaTime operator+(const MediaTime &a, const MediaTime &b);
};

inline MediaTime max(const MediaTime &a, const MediaTime &b)
{
    return a < b ? b : a;
}
