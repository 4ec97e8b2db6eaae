#include "capture/pulse/AudioClock.h"

#include "media/MediaFormat.h"

#include <algorithm>

AudioClock::AudioClock(int sampleRate, int64_t toleranceNanoseconds, int patiencePackets)
    : m_sampleRate(sampleRate > 0 ? sampleRate : AudioDefaults::sampleRate)
    , m_tolerance(toleranceNanoseconds)
    , m_patience(std::max(1, patiencePackets))
{
}

int64_t AudioClock::expected() const
{
    // 128 bits: a day of samples times 10^9 would not fit in 64.
    return m_anchor + int64_t(__int128(m_samplesSinceAnchor) * 1'000'000'000 / m_sampleRate);
}

AudioClock::Stamp AudioClock::stamp(int64_t measuredNanoseconds, int64_t frames)
{
    if (!m_anchored) {
        if (m_everAnchored)
            ++m_reanchors;
        m_anchor = measuredNanoseconds;
        m_samplesSinceAnchor = 0;
        m_outliers = 0;
        m_anchored = true;
    } else {
        const int64_t drift = measuredNanoseconds - expected();
        if (drift > m_tolerance || drift < -m_tolerance) {
            if (m_outliers == 0 || (drift > 0) != (m_smallestDrift > 0))
                m_outliers = 0, m_smallestDrift = drift;
            m_smallestDrift = std::min(m_smallestDrift, drift);
            if (++m_outliers >= m_patience) {
                ++m_reanchors;
                m_anchor += m_smallestDrift;
                m_outliers = 0;
            }
        } else {
            m_outliers = 0;
        }
    }

    Stamp result;
    if (m_everAnchored && expected() < m_end) {
        // Rounded up, so the first kept sample starts at or after the end.
        const __int128 behind = m_end - expected();
        result.skip = std::min<int64_t>(
            frames, int64_t((behind * m_sampleRate + 999'999'999) / 1'000'000'000));
    }
    m_everAnchored = true;
    m_samplesSinceAnchor += result.skip;
    result.time = expected();
    m_samplesSinceAnchor += frames - result.skip;
    if (result.skip < frames)
        m_end = expected();
    return result;
}
