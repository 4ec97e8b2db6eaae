#pragma once

#include <cstdint>
#include <memory>
#include <vector>

// Descriptions of the media the pipeline carries. Records share them through
// std::shared_ptr<const ...>: a description never changes once made.

struct VideoFormat
{
    int width = 0;
    int height = 0;
    // The H.264 decoder configuration (avcC) as MP4 stores it; what the muxer needs as extradata.
    std::vector<uint8_t> extradata;
};

struct AudioFormat
{
    enum class SampleFormat { Float32, Int16 };

    // 0 when the rate is unknown; readers then assume AudioDefaults::sampleRate.
    int sampleRate = 0;
    int channels = 0;
    SampleFormat sampleFormat = SampleFormat::Float32;
    // Planar audio keeps one buffer per channel, stored back to back; interleaved keeps one.
    bool planar = false;

    int bytesPerSample() const { return sampleFormat == SampleFormat::Float32 ? 4 : 2; }
};

// The audio the pipeline captures and writes: 48 kHz stereo, encoded to AAC at 192 kbit/s. A format
// whose rate is unknown is read at the capture rate.
namespace AudioDefaults {
inline constexpr int sampleRate = 48000;
inline constexpr int channels = 2;
inline constexpr int64_t aacBitRate = 192000; // bits per second
} // namespace AudioDefaults

// What an AAC track is encoded as.
struct AacSettings
{
    int sampleRate = AudioDefaults::sampleRate;
    int channels = AudioDefaults::channels;
    int64_t bitRate = AudioDefaults::aacBitRate; // bits per second
};

using VideoFormatPtr = std::shared_ptr<const VideoFormat>;
using AudioFormatPtr = std::shared_ptr<const AudioFormat>;
