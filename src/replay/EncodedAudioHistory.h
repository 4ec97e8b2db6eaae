#pragma once

#include "media/EncodedAudioSink.h"
#include "media/FFmpegHandles.h"
#include "media/MediaTime.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

// The AAC that the session file's writer made of one audio track, kept for the last couple of
// minutes, so that a clip can take its audio from here instead of encoding the same samples a
// second time. On a small machine that second encode is most of what a save costs, and it runs
// while the capture needs the same cores.
//
// Packets count samples on the track's timeline, whose zero is the source (capture) time given
// to begin(); the writer lays audio on that timeline within a few milliseconds of its time
// stamps, which is how close a clip made from here stays to its video.
//
// Thread-safe: the session's writer appends on its queue while an export reads on its own.
class EncodedAudioHistory final : public EncodedAudioSink
{
public:
    // Audio for a clip: packets re-stamped so that zero is the clip's start. The first packet
    // (or two) lies before zero: a decoder needs the block before the first one it plays, and
    // the file's edit list hides what lies before zero.
    struct Clip
    {
        FFmpeg::CodecParametersPtr parameters;
        std::vector<FFmpeg::PacketPtr> packets; // time base 1 / sample rate
    };

    explicit EncodedAudioHistory(std::chrono::seconds keep = std::chrono::seconds(130));
    EncodedAudioHistory(const EncodedAudioHistory &) = delete;
    EncodedAudioHistory &operator=(const EncodedAudioHistory &) = delete;

    // The writer starts a track: its stream parameters, and the source time of its sample zero.
    // Forgets anything from an earlier start.
    void begin(const AVCodecParameters &parameters, MediaTime sourceZero) override;
    // One packet as it reaches the file, stamped in samples from sample zero.
    void append(const AVPacket &packet) override;
    // Nothing more will come (the writer finished or failed): readers stop waiting.
    void close() override;

    // The packets that cover source times [from, to), waiting up to `wait` for the writer to
    // reach `to`. None when the history does not hold all of it (not begun, trimmed, a writer
    // that fell behind or stopped): the caller then encodes the audio itself.
    std::optional<Clip> clip(MediaTime from, MediaTime to, std::chrono::milliseconds wait) const;

private:
    struct Entry
    {
        FFmpeg::PacketPtr packet;
        int64_t end = 0; // pts + duration
    };

    int64_t samplesFrom(MediaTime source) const; // under m_lock

    const std::chrono::seconds m_keep;
    mutable std::mutex m_lock;
    mutable std::condition_variable m_grown;
    FFmpeg::CodecParametersPtr m_parameters;
    MediaTime m_zero;
    int m_rate = 0;
    bool m_closed = false;
    std::deque<Entry> m_entries;
};
