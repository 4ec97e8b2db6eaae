#pragma once

#include "replay/ReplayBuffer.h"

#include <vector>

// Builders for records the way the capture and the encoder produce them: time stamps on a
// nanosecond clock, 60 frames per second, 10 ms stereo float audio at 48 kHz.
namespace replay_test {

inline MediaTime nanos(double seconds)
{
    return MediaTime::make(int64_t(seconds * 1e9 + 0.5), 1'000'000'000);
}

inline MediaTime frameTime(int64_t index)
{
    return nanos(double(index) / 60.0);
}

inline ReplayBuffer::EncodedFrame frame(int64_t index, bool isKey, size_t bytes = 64)
{
    std::vector<uint8_t> payload(bytes, uint8_t(index));
    return {Bytes::copy(payload), frameTime(index), MediaTime::make(1, 60), isKey};
}

inline VideoFormatPtr videoFormat()
{
    static const auto format =
        std::make_shared<const VideoFormat>(VideoFormat {1920, 1080, {1, 0x64, 0, 0x28}});
    return format;
}

inline AudioFormatPtr stereoFloat(int rate = 48000)
{
    return std::make_shared<const AudioFormat>(AudioFormat {rate, 2});
}

// Stores `seconds` of video starting at frame `first`, a key frame every `keyInterval` frames.
inline int64_t feedVideo(ReplayBuffer &buffer, int64_t first, double seconds, int keyInterval = 120)
{
    const int64_t end = first + int64_t(seconds * 60);
    for (int64_t i = first; i < end; ++i)
        buffer.appendVideo(frame(i, i % keyInterval == 0), videoFormat());
    return end;
}

struct AudioFeed
{
    std::vector<uint8_t> pcm = std::vector<uint8_t>(480 * 8, 7);
    std::span<const uint8_t> piece {pcm};

    AudioSampleBuffer at(double seconds, AudioFormatPtr format = stereoFloat(),
                         MediaTime duration = MediaTime::make(480, 48000))
    {
        return {std::span(&piece, 1), nanos(seconds), duration, 480, std::move(format), {}};
    }
};

} // namespace replay_test
