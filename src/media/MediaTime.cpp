#include "media/MediaTime.h"

#include <cmath>
#include <limits>
#include <numeric>

namespace {

using Wide = __int128;

// Rounds numerator / denominator (denominator > 0) to the nearest integer, halves away from zero.
Wide roundedDivide(Wide numerator, Wide denominator)
{
    const Wide half = denominator / 2;
    return numerator >= 0 ? (numerator + half) / denominator : -((-numerator + half) / denominator);
}

MediaTime fromWide(Wide value, Wide timescale)
{
    if (value > std::numeric_limits<int64_t>::max() || value < std::numeric_limits<int64_t>::min())
        return MediaTime::invalid();
    return MediaTime::make(int64_t(value), int32_t(timescale));
}

// Brings a and b onto one timescale: their least common multiple where it fits, otherwise
// nanoseconds (rounded).
template<typename Op> MediaTime combine(const MediaTime &a, const MediaTime &b, Op op)
{
    if (!a.valid || !b.valid)
        return MediaTime::invalid();
    if (a.timescale == b.timescale)
        return fromWide(op(Wide(a.value), Wide(b.value)), a.timescale);
    const int64_t common = std::lcm(int64_t(a.timescale), int64_t(b.timescale));
    if (common <= MediaTime::maxTimescale) {
        const Wide av = Wide(a.value) * (common / a.timescale);
        const Wide bv = Wide(b.value) * (common / b.timescale);
        return fromWide(op(av, bv), common);
    }
    const Wide scale = MediaTime::maxTimescale;
    const Wide av = roundedDivide(Wide(a.value) * scale, a.timescale);
    const Wide bv = roundedDivide(Wide(b.value) * scale, b.timescale);
    return fromWide(op(av, bv), scale);
}

} // namespace

MediaTime MediaTime::fromSeconds(double seconds, int32_t timescale)
{
    if (timescale <= 0 || !std::isfinite(seconds))
        return invalid();
    return make(int64_t(std::round(seconds * timescale)), timescale);
}

MediaTime MediaTime::converted(int32_t newTimescale) const
{
    if (!valid || newTimescale <= 0)
        return invalid();
    return fromWide(roundedDivide(Wide(value) * newTimescale, timescale), newTimescale);
}

std::strong_ordering operator<=>(const MediaTime &a, const MediaTime &b)
{
    if (!a.valid || !b.valid)
        return a.valid == b.valid
            ? std::strong_ordering::equal
            : (a.valid ? std::strong_ordering::less : std::strong_ordering::greater);
    const Wide left = Wide(a.value) * b.timescale;
    const Wide right = Wide(b.value) * a.timescale;
    return left < right
        ? std::strong_ordering::less
        : (left > right ? std::strong_ordering::greater : std::strong_ordering::equal);
}

MediaTime operator-(const MediaTime &a, const MediaTime &b)
{
    return combine(a, b, [](Wide x, Wide y) { return x - y; });
}

MediaTime operator+(const MediaTime &a, const MediaTime &b)
{
    return combine(a, b, [](Wide x, Wide y) { return x + y; });
}
