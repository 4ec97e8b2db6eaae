#include "engine/PaceWatch.h"

#include <algorithm>

namespace {

constexpr int64_t second = 1'000'000'000;
// Seconds in a row that must each lose frames before the capture is said to fall behind.
constexpr size_t secondsBehind = 2;

} // namespace

std::optional<double> PaceWatch::update(const ScreenStream::Stats &counts, int64_t nowNanoseconds)
{
    if (m_told || (!m_samples.empty() && nowNanoseconds - m_samples.back().at < second))
        return std::nullopt;
    m_samples.push_back({nowNanoseconds, counts.skipped + counts.late});
    while (m_samples.size() > secondsBehind + 1)
        m_samples.pop_front();
    if (m_samples.size() < secondsBehind + 1)
        return std::nullopt;
    // Each second (a little more when the checks come late) must have lost a twentieth.
    for (size_t i = 1; i < m_samples.size(); ++i) {
        const double seconds = double(m_samples[i].at - m_samples[i - 1].at) / second;
        if (double(m_samples[i].lost - m_samples[i - 1].lost) < seconds * m_fps / 20.0)
            return std::nullopt;
    }
    m_told = true;
    const double span = double(m_samples.back().at - m_samples.front().at) / second;
    const double lost = double(m_samples.back().lost - m_samples.front().lost);
    return std::max(0.0, m_fps - lost / span);
}
