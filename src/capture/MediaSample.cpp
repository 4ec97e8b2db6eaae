#include "capture/MediaSample.h"

#include "capture/ReplayBuffer.h"

// The replay buffer's records turned back into samples; they live here, beside the sample type,
// so that the buffer itself stays free of anything a writer needs.

std::optional<MediaSample> ReplayBuffer::makeVideoSample(const EncodedFrame &frame,
                                                         const VideoFormatPtr &format)
{
    if (frame.data.empty() || !format)
        return std::nullopt;
    MediaSample sample;
    sample.kind = MediaSample::Kind::video;
    sample.data = frame.data;
    sample.pts = frame.pts;
    sample.duration = frame.duration;
    sample.isKey = frame.isKey;
    sample.videoFormat = format;
    return sample;
}

std::optional<MediaSample> ReplayBuffer::makeAudioSample(const AudioPacket &packet,
                                                         const AudioFormatPtr &format)
{
    if (packet.data.empty() || packet.numSamples < 1 || !format)
        return std::nullopt;
    MediaSample sample;
    sample.kind = MediaSample::Kind::audio;
    sample.data = packet.data;
    sample.pts = packet.pts;
    sample.duration = packet.duration;
    sample.numSamples = packet.numSamples;
    sample.audioFormat = format;
    return sample;
}
