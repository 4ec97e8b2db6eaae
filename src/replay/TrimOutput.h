#pragma once

#include "media/FFmpegHandles.h"

#include <QString>

#include <cstdint>
#include <vector>

// The MP4 a trim writes, through libavformat's muxer: streams copied from the clip's parameters
// (the video with a decoder configuration of its own), packets written as they are given, each
// in its stream's source time base, and interleaved by the muxer. Times before zero are decoder
// pre-roll, which the file's edit list hides.
//
// Failures throw RecorderError::writerFailed with the sentence the user reads; the caller removes
// the file.
class TrimOutput
{
public:
    explicit TrimOutput(const QString &path);
    ~TrimOutput();
    TrimOutput(const TrimOutput &) = delete;
    TrimOutput &operator=(const TrimOutput &) = delete;

    // Streams are added before begin(); each returns the index write() takes.
    int addVideo(const AVCodecParameters &source, const std::vector<uint8_t> &avcC,
                 AVRational timeBase);
    int addAudio(const AVCodecParameters &source, AVRational timeBase);

    void begin();
    // `packet`'s times and duration are in the time base its stream was added with.
    void write(int stream, FFmpeg::PacketPtr packet);
    // Writes the index and closes the file.
    void finish();

private:
    [[noreturn]] void fail(int status) const;

    QString m_path;
    FFmpeg::FormatContextPtr m_format;
    std::vector<AVRational> m_sourceTimeBases;
    bool m_open = false;
};
