#pragma once

#include "capture/ScreenStream.h"

#include <cstdint>
#include <deque>
#include <optional>

// Tells when the capture falls behind for more than a moment: the frames it had to skip (the
// encoder behind, no free buffer) and the ticks it missed, counted second by second. A save or a
// compiler starting may cost a frame now and then; losing a twentieth of the frames or more in
// each of two seconds running means the computer cannot keep up with the frame rate asked for.
// It says so once, with the rate actually held over those seconds.
class PaceWatch
{
public:
    explicit PaceWatch(int fps)
        : m_fps(fps)
    {
    }

    // The stream's counts as of `nowNanoseconds` (monotonic); call as often as convenient. Answers
    // the frames a second held the first time the capture is found falling behind, and nothing
    // otherwise (before and after).
    std::optional<double> update(const ScreenStream::Stats &counts, int64_t nowNanoseconds);
    int fps() const { return m_fps; }

private:
    struct Sample
    {
        int64_t at = 0;
        int64_t lost = 0;
    };

    const int m_fps;
    std::deque<Sample> m_samples; // a second or more apart, oldest first
    bool m_told = false;
};
