#pragma once

#include "media/AacEncoder.h"
#include "media/AacTrackWorker.h"
#include "media/AudioTimeline.h"

#include <deque>
#include <functional>
#include <memory>

// Encodes one audio track of a writer to AAC, off the writer's thread.
//
// Fed live (a real-time track, as a session records), one encoder on one worker thread takes
// every sample. Fed from memory (an export), the track is cut into segments of a few seconds
// that encode on several threads at once, so even a single track encodes faster than one core
// could. Each segment's encoder starts a little before its segment (pre-roll) and runs on a
// little past it (post-roll), so that every packet kept was made from the same samples, on both
// sides, as one encoder would have used; the packets outside the segment are dropped.
//
// Used on the writer's queue only; the workers report progress through `onProgress`.
class AudioTrackEncoder
{
public:
    // None when there is no AAC encoder for `settings`.
    static std::unique_ptr<AudioTrackEncoder>
    create(const AacEncoder::Settings &settings, bool segmented, std::function<void()> onProgress);
    ~AudioTrackEncoder();

    void copyParameters(AVCodecParameters *parameters) const;
    AVRational timeBase() const { return {1, m_settings.sampleRate}; }
    int sampleRate() const { return m_settings.sampleRate; }

    // Whether more samples may be submitted now: a segmented track holds back once its segments
    // in flight are all full.
    bool isReady() const;
    // Places `sample`, stamped `start` (relative to the track's zero), and hands it on.
    void submit(const MediaSample &sample, MediaTime start);
    // No more samples: every segment drains.
    void finish();
    // The packets ready to be written, in order.
    AacTrackWorker::Output take();

private:
    struct Segment
    {
        std::unique_ptr<AacTrackWorker> worker;
        int64_t feedFrom = 0; // timeline range it is fed
        int64_t feedUntil = INT64_MAX;
        int64_t keepFrom = INT64_MIN; // packet times it contributes
        int64_t keepUntil = INT64_MAX;
        bool finishQueued = false;
    };

    AudioTrackEncoder(const AacEncoder::Settings &settings, bool segmented,
                      std::function<void()> onProgress);
    bool addSegment(std::unique_ptr<AacEncoder> encoder, int64_t feedFrom, int64_t keepFrom);
    void maybeStartSegment();
    void feed(Segment &segment, const AudioRun &run);
    int segmentsInFlight() const;

    const AacEncoder::Settings m_settings;
    FFmpeg::CodecParametersPtr m_parameters;
    const bool m_segmented;
    const std::function<void()> m_onProgress;
    int m_frameSize = 1024;
    int m_maxInFlight = 1;
    AudioTimeline m_timeline;
    std::deque<Segment> m_segments; // in timeline order; the front one is being written
    std::deque<AudioRun> m_recent; // the last runs, for the next segment's pre-roll
    bool m_finished = false;
};
