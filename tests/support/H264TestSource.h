#pragma once

#include "media/AudioPacket.h"
#include "media/AudioSampleBuffer.h"
#include "media/EncodedFrame.h"
#include "media/MediaFormat.h"

#include <cstdint>
#include <vector>

// Real H.264 for tests and benchmarks, made with libx264 through libavcodec and handed over the
// way the capture encoder hands it over: length-prefixed NAL units, the avcC as the format's
// extradata, High profile, 60 frames per second, a key frame every 120 frames, no B-frames.
// One group of pictures of a moving picture is encoded once; longer stretches repeat it (each
// group is closed, so the repeats decode like one long stream).
class H264TestSource
{
public:
    static constexpr int fps = 60;
    static constexpr int gopLength = 120;

    // `bitRate` in bits per second; noise in the picture makes the encoder spend it.
    H264TestSource(int width, int height, int64_t bitRate);

    const VideoFormatPtr &format() const { return m_format; }

    // Frame `index` of the endless stream, at `origin` + index / 60 s; a key frame every 120.
    EncodedFrame frame(int64_t index, MediaTime origin = MediaTime::zero()) const;

    // Bytes of one group of pictures.
    size_t gopBytes() const;

private:
    VideoFormatPtr m_format;
    std::vector<Bytes> m_gop;
};

// Float interleaved stereo at 48 kHz in 10 ms packets, the way audio capture stores it: a tone of
// `frequency` Hz at `amplitude`, and a second one when `amplitude2` is set.
struct PcmTestSource
{
    static constexpr int rate = 48000;
    static constexpr int packetSamples = 480;

    double frequency = 440;
    float amplitude = 0.3f;
    double frequency2 = 0;
    float amplitude2 = 0;

    // Sample `index` of the stream (the same in both channels).
    float value(int64_t index) const;

    AudioFormatPtr format() const;
    // Packet `index` of the stream, at `origin` + index * 10 ms.
    AudioPacket packet(int64_t index, MediaTime origin = MediaTime::zero()) const;
    // The same as a buffer the capture stream hands to the replay buffer's appendAudio.
    AudioSampleBuffer sampleBuffer(int64_t index, MediaTime origin = MediaTime::zero()) const;
};
