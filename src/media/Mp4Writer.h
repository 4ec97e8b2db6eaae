#pragma once

#include "media/MediaFormat.h"
#include "media/MediaSample.h"
#include "media/MediaTime.h"

#include <QString>

extern "C" {
struct AVCodecParameters;
struct AVPacket;
}

#include <functional>
#include <memory>
#include <optional>

class EncodedAudioSink;
class SerialQueue;

// Writes one MP4 file with libavformat's mp4 muxer, one stream per track: H.264 packets passed
// through as they come (the avcC becomes the sample description), and audio streams that encode
// PCM to AAC as it is written or take AAC packets encoded before. Two users: the clip export,
// which feeds a finished snapshot as fast as the writer takes it, and the session recorder, which
// writes as capture goes for as long as it runs and flushes at the end.
//
// Threads. Every call must be made on `queue`, the writer's one execution context; the writer
// posts its own callbacks (the feeders, the flush's completion) to the same queue. Each audio
// stream is encoded on a worker thread of its own, so streams encode in parallel with each other
// and with the video; the writes into the muxer all happen on `queue`, interleaved by time.
// The writer may be destroyed on any thread once no call into it is running.
//
// Failures. Refusals are return values: a stream that cannot be added, a sample or packet the
// writer will not take (not writing, stream ended, malformed, a video time that does not move
// forward), a file that cannot be started. A writer that fails while writing (a full disk) turns
// to `Status::failed` with `error()` set and refuses everything after. Faults are calls out of
// order (writing before setTimeOrigin) or for the wrong stream, and running out of memory: the
// set-up calls throw them, the writes never throw and report them as a WriteError instead, so
// a feeder on a callback can never be taken down by one sample.
//
// Lifecycle: construct, add streams, writeHeader, setTimeOrigin, write (directly, or from a
// feeder set with setFeeder), endStream, flush. Destroying a writer that has not flushed abandons
// its file as it is; the caller removes it.
class Mp4Writer
{
public:
    // The clip export logs the number.
    enum class Status { notStarted = 0, writing = 1, completed = 2, failed = 3 };

    // A handle to one stream (track) of one writer.
    struct Stream
    {
        int index = -1;
    };

    // Why a write was not taken. Domain "Vantrel"; code 1 (fault): the writer faulted, and the
    // description is the fault's message; code 2 (refused): the stream would not take the sample,
    // "Could not write a frame into the clip.".
    struct WriteError
    {
        enum Code { fault = 1, refused = 2 };

        QString domain;
        int code = 0;
        QString description;
    };

    using AudioSettings = AacSettings;

    // Sets up a writer for the file at `path` (created by writeHeader). Throws RecorderError
    // when FFmpeg cannot provide an MP4 muxer.
    Mp4Writer(const QString &path, SerialQueue &queue);
    ~Mp4Writer();
    Mp4Writer(const Mp4Writer &) = delete;
    Mp4Writer &operator=(const Mp4Writer &) = delete;

    // Streams are added before writeHeader, and are numbered in the order added. A real-time
    // stream is always ready for more data (capture cannot wait); one that is not holds the
    // feeding back so that its track stays close in time to the others: video no more than a
    // second ahead of the audio already encoded, audio no more than two seconds ahead of its
    // encoder. None when the stream cannot be added (no avcC, no AAC encoder for the settings,
    // already writing).
    std::optional<Stream> addVideoStream(const VideoFormatPtr &sourceFormat, bool realTime);
    std::optional<Stream> addAudioStream(const AudioSettings &settings, bool realTime);
    // An audio track whose packets arrive already encoded (with these stream parameters) and are
    // written as they are. Not real-time: it keeps within a second of the video, both ways.
    std::optional<Stream> addEncodedAudioStream(const AVCodecParameters &parameters);
    // Every packet the encoder of audio stream `stream` makes is also handed to `sink`, which
    // begins at setTimeOrigin and is closed when the writer finishes or fails.
    void keepEncodedAudio(Stream stream, std::shared_ptr<EncodedAudioSink> sink);

    // Creates the file and writes the header. False with status failed and error() set when the
    // file cannot be created or the muxer refuses the streams.
    bool writeHeader();
    // Sample times are written relative to `sourceTime`: it becomes zero in the file. Video
    // before it is refused; audio before it is cut off.
    void setTimeOrigin(MediaTime sourceTime);

    // Whether `stream` takes more now (see the pacing above).
    bool canTakeMore(Stream stream) const;
    // Video goes into the muxer at once (the payload is shared, not copied); audio goes to its
    // track's encoder. Never throws: false when the sample was not taken, with `error` (when
    // given) saying why.
    bool writeSample(Stream stream, const MediaSample &sample, WriteError *error = nullptr);
    // One packet for a stream made by addEncodedAudioStream, stamped in its sample rate from the
    // session's start; times before zero are decoder pre-roll, which players skip. Refused when
    // not writing, ended, empty or not moving time forward. Never throws, like writeSample.
    bool writePacket(Stream stream, const AVPacket &packet, WriteError *error = nullptr);
    // Calls `feeder` on the queue whenever `stream` can take more, until the stream ends. The
    // feeder writes while canTakeMore and returns when it is not.
    void setFeeder(Stream stream, std::function<void()> feeder);
    // No more samples for `stream`.
    void endStream(Stream stream);

    // Ends every stream, drains the audio encoders into the file, writes the trailer (the index)
    // and closes the file; then runs `completion` on the queue, with status() completed or failed.
    void flush(std::function<void()> completion);

    Status status() const;
    // Why the writer failed; empty otherwise.
    QString error() const;
    QString path() const;

private:
    bool writeSampleOrThrow(Stream stream, const MediaSample &sample);
    bool writePacketOrThrow(Stream stream, const AVPacket &packet);

    struct Core;
    std::shared_ptr<Core> d;
};
