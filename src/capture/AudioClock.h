#pragma once

#include <cstdint>

// Turns the measured capture times of audio packets into one continuous timeline. A packet's time
// is an anchor plus the samples counted since it, so consecutive packets abut exactly and the
// latency estimate's jitter never reaches the clip; the measurement moves the anchor only when
// the two part by more than the tolerance: after a hole in the stream, or once the sound card's
// clock has drifted that far from the system's. Times only ever increase: a backward move is
// held just after the previous packet's time (the packets then overlap by a few milliseconds,
// which a muxer copes with better than time going backwards).
class AudioClock
{
public:
    AudioClock(int sampleRate, int64_t toleranceNanoseconds);

    // The time, in nanoseconds, of a packet of `frames` samples whose first sample was measured
    // to be captured at `measuredNanoseconds`.
    int64_t stamp(int64_t measuredNanoseconds, int64_t frames);

    // Samples went missing: the next packet anchors afresh whatever its measurement.
    void reset() { m_anchored = false; }

    // How often the anchor moved after the first one.
    int64_t reanchors() const { return m_reanchors; }

private:
    int64_t expected() const;

    const int m_sampleRate;
    const int64_t m_tolerance;
    bool m_anchored = false;
    bool m_everAnchored = false;
    int64_t m_anchor = 0;
    int64_t m_samplesSinceAnchor = 0;
    int64_t m_reanchors = 0;
    int64_t m_lastTime = 0;
};
