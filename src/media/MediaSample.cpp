#include "media/MediaSample.h"

std::optional<MediaSample> makeVideoSample(const EncodedFrame &frame, const VideoFormatPtr &format)
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

std::optional<MediaSample> makeAudioSample(const AudioPacket &packet, const AudioFormatPtr &format)
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
