#pragma once

#include "core/ResumeBox.h"
#include "core/SerialQueue.h"
#include "media/Mp4Writer.h"
#include "replay/Counter.h"
#include "replay/EncodedAudioHistory.h"
#include "replay/Remaining.h"
#include "replay/ReplayBuffer.h"
#include "replay/WrittenFile.h"

#include <QPromise>
#include <QString>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

// One clip being written: the writer, its three feeds, the time limit and the answer. Lives on
// the export queue, where every one of its steps runs, and keeps itself alive until the writer
// has finished or been given up, which may be after the caller was answered (a time limit that
// fired first). The caller is answered exactly once, through `m_answer`, with the clip and what
// it lacks of the snapshot (frames and packets the writer would not take are counted, and a
// track that could not be added loses all of its packets) or with a RecorderError.
class ClipExportJob : public std::enable_shared_from_this<ClipExportJob>
{
public:
    struct Plan
    {
        QString tempPath;
        QString finalPath;
        std::vector<ReplayBuffer::EncodedFrame> frames; // from a key frame, re-timed to zero
        VideoFormatPtr videoFormat;
        std::vector<ReplayBuffer::AudioPacket> audio; // re-timed against the first frame
        AudioFormatPtr audioFormat;
        std::vector<ReplayBuffer::AudioPacket> mic;
        AudioFormatPtr micFormat;
        // Audio already encoded while armed, and the source time each track of the snapshot
        // ends at: what the history must cover, from `sourceBase` (the first frame's capture
        // time), for the track to be copied from it.
        struct Reuse
        {
            std::shared_ptr<const EncodedAudioHistory> history;
            MediaTime end;
        };
        MediaTime sourceBase;
        Reuse audioHistory;
        Reuse micHistory;
        std::chrono::milliseconds timeLimit {60'000};
        std::function<void()> onWriterDone;
        // The length asked for and the length of the video, in seconds, for the answer.
        double askedSeconds = 0;
        double seconds = 0;
    };

    // Writes `plan` on `queue` and answers `promise` (already started).
    static void start(Plan plan, QPromise<WrittenFile> promise, SerialQueue &queue);

    ClipExportJob(Plan plan, QPromise<WrittenFile> promise, SerialQueue &queue);
    ~ClipExportJob();

private:
    // One writer input with what feeds it. `finished` runs the input's finishing once.
    struct Feed
    {
        Mp4Writer::Stream input;
        bool wanted = false; // the snapshot holds something for it
        bool added = false;
        size_t next = 0;
        ResumeBox finished;
        Counter failed; // records the writer would not take
        std::vector<FFmpeg::PacketPtr> encoded; // the packets it copies, for a reused track

        bool reused() const { return !encoded.empty(); }
    };
    enum class Track { video, audio, mic };

    void writeMP4();
    void addAudio(Feed &feed, const Plan::Reuse &reuse, const AudioFormatPtr &format,
                  const char *name);
    size_t feedSize(Track track) const;
    void pump(Track track);
    void finishInput(Feed &feed);
    void finishIfNeeded();
    Shortfall shortfall() const;
    void onWriterFinished();
    void fail(const QString &message);
    // Lets go of the job once the writer is done with; it is destroyed in a later queue task, so
    // that no step of it is still running when it goes.
    void release();

    Plan m_plan;
    QPromise<WrittenFile> m_promise; // answered inside m_answer only
    SerialQueue &m_queue;
    std::shared_ptr<ClipExportJob> m_self;
    ResumeBox m_answer;
    std::unique_ptr<Mp4Writer> m_writer;
    SerialQueue::Delayed m_timeLimit;
    std::optional<Remaining> m_remaining;
    Feed m_video;
    Feed m_audio;
    Feed m_mic;
};
