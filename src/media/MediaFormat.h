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

    // 0 when the rate is unknown; readers then assume 48000.
    int sampleRate = 0;
    int channels = 0;
    SampleFormat sampleFormat = SampleFormat::Float32;
    // Planar audio keeps one buffer per channel, stored back to back; interleaved keeps one.
    bool planar = false;

    int bytesPerSample() const { return sampleFormat == SampleFormat::Float32 ? 4 : 2; }
};

using VideoFormatPtr = std::shared_ptr<const VideoFormat>;
using AudioFormatPtr = std::shared_ptr<const AudioFormat>;
