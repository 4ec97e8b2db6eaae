#include "capture/AudioClock.h"

#include <algorithm>

AudioClock::AudioClock(int sampleRate, int64_t toleranceNanoseconds)
    : m_sampleRate(sampleRate > 0 ? sampleRate : 48000)
    , m_tolerance(toleranceNanoseconds)
{
}

int64_t AudioClock::expected() const
{
    // 128 bits: a day of samples times 10^9 would not fit in 64.
    return m_anchor + int64_t(__int128(m_samplesSinceAnchor) * 1'000'000'000 / m_sampleRate);
}

int64_t AudioClock::stamp(int64_t measuredNanoseconds, int64_t frames)
{
    const int64_t drift = m_anchored ? measuredNanoseconds - expected() : 0;
    if (!m_anchored || drift > m_tolerance || drift < -m_tolerance) {
        if (m_everAnchored)
            ++m_reanchors;
        m_anchor =
            m_everAnchored ? std::max(measuredNanoseconds, m_lastTime + 1) : measuredNanoseconds;
        m_samplesSinceAnchor = 0;
        m_anchored = m_everAnchored = true;
    }
    m_lastTime = expected();
    m_samplesSinceAnchor += frames;
    return m_lastTime;
}
