#pragma once

#include "media/AudioTimeline.h"
#include "media/FFmpegHandles.h"
#include "media/MediaSample.h"

#include <memory>
#include <vector>

// PCM as captured in, AAC packets out: libswresample brings each packet to the encoder's planar
// float layout and rate, and libavcodec's own "aac" encoder compresses it. The encoder is fed
// runs of an AudioTimeline, which has already decided where every sample goes; packet time
// stamps count samples on that timeline. Single-threaded: one thread at a time.
class AacEncoder
{
public:
    using Settings = AacSettings;

    // None when libavcodec has no AAC encoder or it refuses the settings (an odd sample rate).
    static std::unique_ptr<AacEncoder> create(const Settings &settings);
    AacEncoder(const AacEncoder &) = delete;
    AacEncoder &operator=(const AacEncoder &) = delete;
    ~AacEncoder();

    // The stream parameters for the packets (the AudioSpecificConfig is the extradata).
    void copyParameters(AVCodecParameters *parameters) const;
    // Packet time stamps count samples: 1 / sample rate.
    AVRational timeBase() const;
    int sampleRate() const;
    int frameSize() const;

    // Whether `sample` holds audio this encoder can read: a known layout and bytes enough for its
    // sample count.
    static bool accepts(const MediaSample &sample);

    // Where the first sample fed goes on the timeline (zero unless set before any run): an
    // encoder that takes over a track part-way starts there.
    void startAt(int64_t position);
    // Encodes `run`, which must start where the previous one ended, appending finished packets to
    // `out`. Throws RecorderError when conversion or encoding fails.
    void encode(const AudioRun &run, std::vector<FFmpeg::PacketPtr> &out);
    // Encodes what is left and drains the encoder; nothing may be encoded afterwards.
    void flush(std::vector<FFmpeg::PacketPtr> &out);

private:
    explicit AacEncoder(FFmpeg::CodecContextPtr codec);
    void prepareConverter(const AudioFormat &format);
    void pushSilence(int64_t samples, std::vector<FFmpeg::PacketPtr> &out);
    void pushConverted(const MediaSample &sample, int64_t skip, int64_t count);
    void encodeFrames(bool final, std::vector<FFmpeg::PacketPtr> &out);
    void receivePackets(std::vector<FFmpeg::PacketPtr> &out);

    FFmpeg::CodecContextPtr m_codec;
    FFmpeg::AudioFifoPtr m_fifo;
    FFmpeg::SwrPtr m_converter;
    AudioFormat m_converterFormat; // the input format m_converter was made for
    std::vector<std::vector<float>> m_converted; // one plane per output channel
    int64_t m_fifoStart = 0; // timeline position of the FIFO's first sample
    int64_t m_end = 0; // timeline position just after the last sample placed
    bool m_flushed = false;
};
