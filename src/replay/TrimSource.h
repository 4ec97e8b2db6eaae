#pragma once

#include "media/FFmpegHandles.h"

#include <QString>

#include <cstdint>
#include <span>
#include <vector>

// A clip opened for trimming, as its MP4 index describes it: every sample of its video and audio
// tracks with its time, its place in the file, its size and whether it is a key frame. Samples'
// bytes are read straight from the file when asked for; nothing is decoded here, and nothing of
// the file is read that the trim does not write or decode.
//
// Only what a trim can cut without surprises is taken: H.264 video in MP4 samples (an avcC with
// 4-byte lengths) whose frames are stored in the order they are shown (no B-frames), and audio
// tracks whose every packet stands on its own (AAC), as Vantrel saves them. Anything else is
// refused with a sentence for the user.
//
// One thread at a time.
class TrimSource
{
public:
    struct Sample
    {
        int64_t pts = 0; // in the track's time base; before 0 for a priming packet
        int64_t duration = 0;
        int64_t position = 0; // in the file
        int size = 0;
        bool key = false;
    };
    struct Track
    {
        int stream = -1;
        AVRational timeBase {1, 1};
        std::vector<Sample> samples; // in time order
        int64_t end = 0; // where the last sample ends

        const AVCodecParameters &parameters(const TrimSource &source) const
        {
            return *source.m_input->streams[stream]->codecpar;
        }
    };

    // Opens `path` and reads its index. Throws RecorderError::writerFailed with what the user is
    // told: the file cannot be read, or it is not a clip that can be trimmed (and why).
    explicit TrimSource(const QString &path);
    TrimSource(const TrimSource &) = delete;
    TrimSource &operator=(const TrimSource &) = delete;

    const Track &video() const { return m_video; }
    const std::vector<Track> &audio() const { return m_audio; }
    // The video's decoder configuration (avcC).
    std::span<const uint8_t> avcC() const;

    // The bytes of one sample as a packet stamped with its time and duration; only its first
    // `limit` bytes when that is given and smaller. Throws RecorderError::writerFailed when the
    // file cannot be read there.
    FFmpeg::PacketPtr read(const Track &track, const Sample &sample, int limit = 0) const;

private:
    static Track trackOf(AVStream &stream, int index);

    QString m_path;
    FFmpeg::InputPtr m_input;
    Track m_video;
    std::vector<Track> m_audio;
};
