#pragma once

#include <cstdint>

// Turns the measured capture times of audio packets into one continuous timeline. A packet's time
// is an anchor plus the samples counted since it, so consecutive packets abut exactly and the
// capture-time estimate's jitter never reaches the clip.
//
// The measurements err one way only: a packet that reaches us late (a busy server, a descheduled
// thread) looks captured later than it was, never earlier. So the timeline moves only when the
// measurements have stayed on one side of it, beyond the tolerance, for `patiencePackets` in a
// row, and then by the smallest of those differences: the earliest measurement is the truest.
// After reset() (a hole the server reported) the next packet anchors afresh.
//
// Times never go back and packets never overlap: when the anchor moves back, the samples that
// fall on time already covered are cut from the front of the packets that follow, until the
// timeline has caught up. That loses as much audio as the estimate was wrong by, once, and keeps
// the clip's sound where it belongs against the video.
class AudioClock
{
public:
    struct Stamp
    {
        int64_t time = 0; // nanoseconds, of the first sample kept
        int64_t skip = 0; // samples to drop from the front; all of them: drop the packet
    };

    AudioClock(int sampleRate, int64_t toleranceNanoseconds, int patiencePackets = 10);

    // Places a packet of `frames` samples whose first sample was measured to be captured at
    // `measuredNanoseconds`.
    Stamp stamp(int64_t measuredNanoseconds, int64_t frames);

    // Samples went missing: the next packet anchors afresh whatever its measurement.
    void reset() { m_anchored = false; }

    // How often the anchor moved after the first one.
    int64_t reanchors() const { return m_reanchors; }

private:
    int64_t expected() const;

    const int m_sampleRate;
    const int64_t m_tolerance;
    const int m_patience;
    bool m_anchored = false;
    bool m_everAnchored = false;
    int64_t m_anchor = 0;
    int64_t m_samplesSinceAnchor = 0;
    int m_outliers = 0; // consecutive measurements beyond the tolerance, on one side
    int64_t m_smallestDrift = 0; // of those, the earliest against the timeline
    int64_t m_reanchors = 0;
    int64_t m_end = 0; // where the last packet handed out ends; valid once anchored
};
