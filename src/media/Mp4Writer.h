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

// Writes one MP4 file with libavformat's mp4 muxer: H.264 video passed through as it comes (the
// avcC becomes the sample description) and audio tracks encoded to AAC from PCM as it is
// appended, or taken as AAC packets that were encoded before. Modelled on a platform asset writer,
// for two users: the clip export, which feeds a finished snapshot as fast as the writer takes it,
// and the session recorder, which appends as capture goes for as long as it runs and finishes at
// the end.
//
// Threads. Every call must be made on `queue`, the writer's one execution context; the writer
// posts its own callbacks (readiness pumps, the finish completion) to the same queue. Each audio
// track is encoded on a worker thread of its own, so tracks encode in parallel with each other
// and with the video; the writes into the muxer all happen on `queue`, interleaved by time.
// The writer may be destroyed on any thread once no call into it is running.
//
// Failures. Refusals are return values: an input that cannot be added, a sample the writer will
// not take (not writing, input finished, malformed sample, a video time that does not move
// forward), a file that cannot be started. A writer that fails while writing (a full disk) turns
// to `Status::failed` with `error()` set and refuses everything after. Faults are calls out of
// order (appending before startSession) or with the wrong input, and running out of memory: the
// set-up calls throw them, the appends never throw and report them as an AppendError instead, so
// a feeder on a callback can never be taken down by one sample.
//
// Lifecycle: construct, add inputs, startWriting, startSession, append (or pump through
// requestMediaDataWhenReady), markAsFinished, finishWriting. Destroying a writer that has not
// finished abandons its file as it is; the caller removes it.
class Mp4Writer
{
public:
    // Numbered as the platform numbers them; the clip export logs the number.
    enum class Status { unknown = 0, writing = 1, completed = 2, failed = 3, cancelled = 4 };

    // A handle to one input (track) of one writer.
    struct Input
    {
        int index = -1;
    };

    // Why an append was not taken. Domain "Vantrel"; code 1 (fault): the writer faulted, and the
    // description is the fault's message; code 2 (refused): the input would not take the sample,
    // "Could not write a frame into the clip.".
    struct AppendError
    {
        enum Code { fault = 1, refused = 2 };

        QString domain;
        int code = 0;
        QString description;
    };

    using AudioSettings = AacSettings;

    // Sets up a writer for the file at `path` (created by startWriting). Throws RecorderError
    // when FFmpeg cannot provide an MP4 muxer.
    Mp4Writer(const QString &path, SerialQueue &queue);
    ~Mp4Writer();
    Mp4Writer(const Mp4Writer &) = delete;
    Mp4Writer &operator=(const Mp4Writer &) = delete;

    // Inputs are added before startWriting, and are numbered in the order added. A real-time
    // input is always ready for more data (capture cannot wait); one that is not holds the
    // feeding back so that its track stays close in time to the others: video no more than a
    // second ahead of the audio already encoded, audio no more than two seconds ahead of its
    // encoder. None when the input cannot be added (no avcC, no AAC encoder for the settings,
    // already writing).
    std::optional<Input> addVideoInput(const VideoFormatPtr &sourceFormat, bool realTime);
    std::optional<Input> addAudioInput(const AudioSettings &settings, bool realTime);
    // An audio track whose packets arrive already encoded (with these stream parameters) and are
    // written as they are. Not real-time: it keeps within a second of the video, both ways.
    std::optional<Input> addEncodedAudioInput(const AVCodecParameters &parameters);
    // Every packet the encoder of audio input `input` makes is also handed to `sink`, which
    // begins at startSession and is closed when the writer finishes or fails.
    void keepEncodedAudio(Input input, std::shared_ptr<EncodedAudioSink> sink);

    // Creates the file and writes the header. False with status failed and error() set when the
    // file cannot be created or the muxer refuses the inputs.
    bool startWriting();
    // Sample times are written relative to `sourceTime`: it becomes zero in the file. Video
    // before it is refused; audio before it is cut off.
    void startSession(MediaTime sourceTime);

    bool isReadyForMoreMediaData(Input input) const;
    // Video goes into the muxer at once (the payload is shared, not copied); audio goes to its
    // track's encoder. Never throws: false when the sample was not taken, with `error` (when
    // given) saying why.
    bool append(Input input, const MediaSample &sample, AppendError *error = nullptr);
    // One packet for an input made by addEncodedAudioInput, stamped in its sample rate from the
    // session's start; times before zero are decoder pre-roll, which players skip. Refused when
    // not writing, finished, empty or not moving time forward. Never throws, like append.
    bool appendEncoded(Input input, const AVPacket &packet, AppendError *error = nullptr);
    // Calls `pump` on the queue whenever `input` is ready for more data, until the input is
    // finished. The pump appends while isReadyForMoreMediaData and returns when it is not.
    void requestMediaDataWhenReady(Input input, std::function<void()> pump);
    // No more samples for `input`.
    void markAsFinished(Input input);

    // Finishes every input, waits for the audio encoders to drain, writes the index and closes
    // the file; then runs `completion` on the queue, with status() completed or failed.
    void finishWriting(std::function<void()> completion);

    Status status() const;
    // Why the writer failed; empty otherwise.
    QString error() const;
    QString path() const;

private:
    bool appendOrThrow(Input input, const MediaSample &sample);
    bool appendEncodedOrThrow(Input input, const AVPacket &packet);

    struct Core;
    std::shared_ptr<Core> d;
};
