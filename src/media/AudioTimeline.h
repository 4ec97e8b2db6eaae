#pragma once

#include "media/MediaSample.h"

#include <cstdint>

// A stretch of an audio track's sample timeline: `silence` samples of silence, then `count`
// samples of `sample` (converted to the track's rate) from converted sample `skip` on.
struct AudioRun
{
    MediaSample sample;
    int64_t start = 0; // timeline position where the silence (or the samples) begin
    int64_t silence = 0;
    int64_t skip = 0;
    int64_t count = 0;

    int64_t end() const { return start + silence + count; }
    bool empty() const { return silence + count <= 0; }
    // The part of this run that falls in [from, to) on the timeline.
    AudioRun clipped(int64_t from, int64_t to) const;
};

// Lays captured audio end to end on a track's sample timeline, which starts at zero, guided by
// the buffers' time stamps. Capture clocks wobble by a few milliseconds; within the allowance
// (20 ms) audio is laid on seamlessly, free of clicks. Beyond it the time stamp wins: a gap is
// filled with silence and an overlap is cut off, so the track stays in step with the video when
// capture drops or repeats a buffer. Deciding this in one place lets several encoders share one
// track and agree on every sample.
class AudioTimeline
{
public:
    explicit AudioTimeline(int sampleRate);

    // Where `sample`, stamped `start` (relative to the track's zero), goes. Empty when it lies
    // wholly under audio already laid.
    AudioRun place(const MediaSample &sample, MediaTime start);
    int64_t end() const { return m_end; }
    int sampleRate() const { return m_rate; }

private:
    int m_rate;
    int64_t m_end = 0;
};
