#pragma once

#include "core/SerialQueue.h"
#include "media/MediaFormat.h"
#include "media/MediaTime.h"
#include "media/Mp4Writer.h"
#include "replay/EncodedAudioHistory.h"
#include "replay/ReplayBuffer.h"
#include "replay/WrittenFile.h"

#include <QFuture>
#include <QPromise>
#include <QString>

#include <deque>
#include <memory>
#include <optional>
#include <vector>

// Writes everything captured during one arming into one MP4 beside the in-memory replay: the
// encoded video as it leaves the encoder (never re-encoded) and the audio packets, encoded to
// AAC by the writer. The file is written in the temporary folder and, when the engine stops,
// moved into the recordings folder as "Session <date>.mp4" or deleted.
//
// The file starts at the first key frame. Until then (or while the file cannot be started) the
// recorder holds a bounded backlog and tries again with every sample.
//
// All state lives on the recorder's own queue; the appends only enqueue and never block, so the
// encoder's and the audio threads can call them directly.
class SessionRecorder
{
public:
    explicit SessionRecorder(bool includeMic);
    // Abandons a recording that was never finished, removing its temporary file.
    ~SessionRecorder();
    SessionRecorder(const SessionRecorder &) = delete;
    SessionRecorder &operator=(const SessionRecorder &) = delete;

    void appendVideo(const ReplayBuffer::EncodedFrame &frame, const VideoFormatPtr &format);
    void appendAudio(const ReplayBuffer::AudioPacket &packet);
    void appendMic(const ReplayBuffer::AudioPacket &packet);

    // Ends the recording and answers the file kept in the recordings folder with what it lacks
    // (frames and packets the writer would not take), or no file: not kept, never started or too
    // short, or lost to an error, which the answer's failure then names. Later appends are
    // ignored. Every caller of an overlapping finish gets the first one's answer; a finish after
    // completion gets the stored answer when it asks to keep, and nothing otherwise.
    QFuture<SessionOutcome> finish(bool keep = true);

    // The AAC the file gets of the system audio and of the microphone (none without one), kept
    // for clips to copy rather than encode the same audio again.
    std::shared_ptr<const EncodedAudioHistory> audioHistory() const { return m_audioHistory; }
    std::shared_ptr<const EncodedAudioHistory> micHistory() const { return m_micHistory; }

    // Backlog held while no file is being written (the oldest entries go first).
    static constexpr size_t maxPendingVideo = 180;
    static constexpr size_t maxPendingAudio = 400;

private:
    using Result = SessionOutcome;
    using Waiter = std::shared_ptr<QPromise<Result>>;

    void noteSoundEnd(const ReplayBuffer::AudioPacket &packet);
    void drain();
    void startWriter(const VideoFormatPtr &format, MediaTime at);
    void conclude(bool keep);
    void completeFinish(Result result);
    static std::optional<QString> moveSessionIntoLibrary(const QString &source);
    static Mp4Writer::AudioSettings aacInput();
    void appendPending(std::deque<ReplayBuffer::AudioPacket> &pending,
                       std::optional<Mp4Writer::Stream> input, int64_t &packets, int64_t &lost);

    const bool m_includeMic;
    const std::shared_ptr<EncodedAudioHistory> m_audioHistory;
    const std::shared_ptr<EncodedAudioHistory> m_micHistory;

    // Everything below is touched on m_queue only.
    std::unique_ptr<Mp4Writer> m_writer;
    std::optional<Mp4Writer::Stream> m_videoInput;
    std::optional<Mp4Writer::Stream> m_audioInput;
    std::optional<Mp4Writer::Stream> m_micInput;
    VideoFormatPtr m_videoFormat; // of the most recent frame
    std::deque<ReplayBuffer::EncodedFrame> m_pendingVideo;
    std::deque<ReplayBuffer::AudioPacket> m_pendingAudio;
    std::deque<ReplayBuffer::AudioPacket> m_pendingMic;
    QString m_path; // the temporary file being written
    MediaTime m_startPTS; // invalid until the file starts
    MediaTime m_soundEnd; // where the latest audio or microphone packet ends; invalid before one
    Shortfall m_shortfall; // of what reached the file's time span
    QString m_startFailure; // why the file could not be started, the last time it was tried
    bool m_finished = false; // no more samples are taken
    bool m_finishing = false;
    Result m_finishResult;
    bool m_finishCompleted = false;
    std::vector<Waiter> m_finishWaiters;

    // Declared last so that it goes first: its destructor runs what is still queued while the
    // state above is alive.
    SerialQueue m_queue;
};
