#include "media/AudioTimeline.h"

extern "C" {
#include <libavutil/mathematics.h>
}

#include <algorithm>

namespace {

constexpr int jitterAllowanceDivisor = 50; // sample rate / 50 = 20 ms, below what viewers notice

// A time stamp that would open a longer gap than this is taken to be broken, not a pause in the
// capture, and the audio is laid on after what came before.
constexpr int64_t maxSilenceSeconds = 3600;

} // namespace

AudioRun AudioRun::clipped(int64_t from, int64_t to) const
{
    AudioRun out = *this;
    const int64_t front = std::max<int64_t>(0, from - start);
    if (front > 0) {
        const int64_t fromSilence = std::min(front, out.silence);
        out.silence -= fromSilence;
        const int64_t fromSamples = std::min(front - fromSilence, out.count);
        out.skip += fromSamples;
        out.count -= fromSamples;
        out.start += fromSilence + fromSamples;
    }
    const int64_t back = std::max<int64_t>(0, out.end() - to);
    if (back > 0) {
        const int64_t fromSamples = std::min(back, out.count);
        out.count -= fromSamples;
        out.silence -= std::min(back - fromSamples, out.silence);
    }
    return out;
}

AudioTimeline::AudioTimeline(int sampleRate)
    : m_rate(sampleRate)
{
}

AudioRun AudioTimeline::place(const MediaSample &sample, MediaTime start)
{
    AudioRun run;
    run.sample = sample;
    run.start = m_end;
    const int inRate = sample.audioFormat && sample.audioFormat->sampleRate > 0
        ? sample.audioFormat->sampleRate
        : AudioDefaults::sampleRate;
    const int64_t samples = inRate == m_rate
        ? sample.numSamples
        : av_rescale_rnd(sample.numSamples, m_rate, inRate, AV_ROUND_NEAR_INF);

    const int64_t allowance = std::max(1, m_rate / jitterAllowanceDivisor);
    const MediaTime placed = start.converted(m_rate);
    const int64_t target = placed.isValid() ? placed.value : m_end;
    if (target > m_end + allowance && target - m_end <= maxSilenceSeconds * m_rate)
        run.silence = target - m_end;
    else if (target < m_end - allowance)
        run.skip = std::min(m_end - target, samples);
    run.count = samples - run.skip;
    m_end = run.end();
    return run;
}
