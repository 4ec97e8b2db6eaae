#include "media/AudioTrackEncoder.h"

#include <algorithm>
#include <new>
#include <thread>

namespace {

// Long enough that starting a segment costs little (its pre-roll and post-roll are about 5 % of
// it), short enough that a 15 s clip still splits across two cores.
constexpr int segmentSeconds = 4;
// Frames an encoder runs before and after its segment. The pre-roll lets its psychoacoustic
// model and rate control settle to what the previous encoder had reached; the post-roll gives
// the last kept packets the look-ahead they were made with.
constexpr int preRollFrames = 8;
constexpr int postRollFrames = 3;
// Segments of one track encoding at once, whatever the number of cores.
constexpr int maxSegmentsInFlight = 4;

} // namespace

std::unique_ptr<AudioTrackEncoder> AudioTrackEncoder::create(const AacEncoder::Settings &settings,
                                                             bool segmented,
                                                             std::function<void()> onProgress)
{
    auto encoder = AacEncoder::create(settings);
    if (!encoder)
        return nullptr;
    std::unique_ptr<AudioTrackEncoder> track(
        new AudioTrackEncoder(settings, segmented, std::move(onProgress)));
    track->m_frameSize = encoder->frameSize();
    track->m_parameters.reset(avcodec_parameters_alloc());
    if (!track->m_parameters)
        throw std::bad_alloc();
    encoder->copyParameters(track->m_parameters.get());
    track->addSegment(std::move(encoder), 0, INT64_MIN);
    return track;
}

AudioTrackEncoder::AudioTrackEncoder(const AacEncoder::Settings &settings, bool segmented,
                                     std::function<void()> onProgress)
    : m_settings(settings)
    , m_segmented(segmented)
    , m_onProgress(std::move(onProgress))
    , m_maxInFlight(
          segmented ? std::clamp(int(std::thread::hardware_concurrency()), 2, maxSegmentsInFlight)
                    : 1)
    , m_timeline(settings.sampleRate)
{
}

AudioTrackEncoder::~AudioTrackEncoder() = default;

bool AudioTrackEncoder::addSegment(std::unique_ptr<AacEncoder> encoder, int64_t feedFrom,
                                   int64_t keepFrom)
{
    if (!encoder)
        return false;
    encoder->startAt(feedFrom);
    Segment segment;
    segment.worker = std::make_unique<AacTrackWorker>(std::move(encoder), m_onProgress);
    segment.feedFrom = feedFrom;
    segment.keepFrom = keepFrom;
    m_segments.push_back(std::move(segment));
    return true;
}

void AudioTrackEncoder::copyParameters(AVCodecParameters *parameters) const
{
    // Every segment's encoder is made with the same settings, so the first describes the track.
    if (avcodec_parameters_copy(parameters, m_parameters.get()) < 0)
        throw std::bad_alloc();
}

int AudioTrackEncoder::segmentsInFlight() const
{
    int count = 0;
    for (const Segment &segment : m_segments)
        count += segment.worker->isDrained() ? 0 : 1;
    return count;
}

bool AudioTrackEncoder::isReady() const
{
    if (m_finished)
        return false;
    if (!m_segmented)
        return true;
    const Segment &open = m_segments.back();
    const int64_t length = m_timeline.end() - open.feedFrom;
    return length < int64_t(segmentSeconds) * m_settings.sampleRate ||
        segmentsInFlight() < m_maxInFlight;
}

void AudioTrackEncoder::maybeStartSegment()
{
    const Segment &open = m_segments.back();
    const int64_t end = m_timeline.end();
    const int64_t boundary = end / m_frameSize * m_frameSize;
    const int64_t preRoll = int64_t(preRollFrames) * m_frameSize;
    if (end - open.feedFrom < int64_t(segmentSeconds) * m_settings.sampleRate ||
        segmentsInFlight() >= m_maxInFlight || boundary - preRoll <= open.feedFrom)
        return;
    if (!addSegment(AacEncoder::create(m_settings), boundary - preRoll, boundary))
        return; // carry on with the open segment
    Segment &previous = m_segments[m_segments.size() - 2];
    previous.keepUntil = boundary;
    previous.feedUntil = boundary + int64_t(postRollFrames) * m_frameSize;
    Segment &next = m_segments.back();
    for (const AudioRun &run : m_recent)
        feed(next, run);
}

void AudioTrackEncoder::feed(Segment &segment, const AudioRun &run)
{
    if (segment.finishQueued)
        return;
    const AudioRun part = run.clipped(segment.feedFrom, segment.feedUntil);
    if (!part.empty())
        segment.worker->submit(part);
    if (m_timeline.end() >= segment.feedUntil) {
        segment.worker->finish();
        segment.finishQueued = true;
    }
}

void AudioTrackEncoder::submit(const MediaSample &sample, MediaTime start)
{
    if (m_finished)
        return;
    if (m_segmented)
        maybeStartSegment();
    const AudioRun run = m_timeline.place(sample, start);
    if (run.empty())
        return;
    for (Segment &segment : m_segments)
        feed(segment, run);
    if (m_segmented) {
        // Keep what the next segment's pre-roll may need, and a frame to spare.
        m_recent.push_back(run);
        const int64_t keep = int64_t(preRollFrames + 2) * m_frameSize;
        while (!m_recent.empty() && m_recent.front().end() < m_timeline.end() - keep)
            m_recent.pop_front();
    }
}

void AudioTrackEncoder::finish()
{
    if (m_finished)
        return;
    m_finished = true;
    m_recent.clear();
    for (Segment &segment : m_segments) {
        if (!segment.finishQueued) {
            segment.worker->finish();
            segment.finishQueued = true;
        }
    }
}

AacTrackWorker::Output AudioTrackEncoder::take()
{
    AacTrackWorker::Output out;
    while (!m_segments.empty()) {
        Segment &front = m_segments.front();
        AacTrackWorker::Output part = front.worker->take();
        for (FFmpeg::PacketPtr &packet : part.packets) {
            if (packet->pts >= front.keepFrom && packet->pts < front.keepUntil)
                out.packets.push_back(std::move(packet));
        }
        if (!part.error.isEmpty()) {
            out.error = part.error;
            out.finished = true;
            return out;
        }
        if (!part.finished)
            break;
        if (m_segments.size() == 1) {
            out.finished = true;
            break;
        }
        m_segments.pop_front();
    }
    return out;
}
