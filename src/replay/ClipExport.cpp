#include "replay/ClipExport.h"

#include "core/Log.h"
#include "core/Paths.h"
#include "core/SerialQueue.h"
#include "media/RecorderError.h"
#include "replay/ClipExportJob.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QPromise>
#include <QUuid>

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <initializer_list>

namespace ClipExport {

namespace {

constexpr int saveNiceness = 10;
// ioprio_set(2) has no glibc wrapper: the best-effort class (2) at its lowest level (7).
constexpr int ioprioWhoProcess = 1;
constexpr int lowestBestEffortIo = (2 << 13) | 7;

QString newUuidText()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
}

QString newTemporaryPath()
{
    return QDir(QDir::tempPath()).filePath(QStringLiteral("vantrel-%1.mp4").arg(newUuidText()));
}

template<typename List>
std::vector<ReplayBuffer::AudioPacket> shiftedAudio(const List &packets, MediaTime base)
{
    std::vector<ReplayBuffer::AudioPacket> shifted;
    shifted.reserve(packets.size());
    for (const ReplayBuffer::AudioPacket &packet : packets) {
        const MediaTime offset = packet.pts - base;
        // What the buffer keeps before its first frame belongs to a clip that starts at a later
        // key frame too, no more and no less.
        if (!offset.isValid() || offset < MediaTime::zero() - ReplayBuffer::audioLead)
            continue;
        ReplayBuffer::AudioPacket copy = packet;
        copy.pts = max(MediaTime::zero(), offset);
        shifted.push_back(std::move(copy));
    }
    return shifted;
}

// Where the last packet of `packets` (kept in arrival order) ends; invalid when there is none.
template<typename List> MediaTime endOf(const List &packets)
{
    return packets.empty() ? MediaTime::invalid() : packets.back().pts + packets.back().duration;
}

// The last picture stays on screen until the sound ends. A still screen hands the encoder a
// frame only about once a second, and a player shows a video track that stops short of the
// audio as a clip without a picture; the muxer gives the last frame this duration.
void holdLastPictureToTheEnd(ReplayBuffer::EncodedFrame &last,
                             std::initializer_list<MediaTime> ends)
{
    for (const MediaTime &end : ends) {
        if (end.isValid() && last.pts + last.duration < end)
            last.duration = end - last.pts;
    }
}

// Where a clip of `lengthSeconds` opens: the last key frame at or before that long before the
// last frame, or the first key frame when the snapshot holds less (or no length is asked for).
// The snapshot's size when it holds no key frame.
template<typename List> size_t clipStart(const List &video, double lengthSeconds)
{
    size_t first = 0;
    while (first < video.size() && !video[first].isKey)
        ++first;
    if (first == video.size() || lengthSeconds <= 0)
        return first;
    const MediaTime cutoff = video.back().pts - MediaTime::fromSeconds(lengthSeconds, 600);
    size_t start = first;
    for (size_t i = first; i < video.size() && !(cutoff < video[i].pts); ++i) {
        if (video[i].isKey)
            start = i;
    }
    return start;
}

QFuture<WrittenFile> failedFuture(const RecorderError &error)
{
    QPromise<WrittenFile> promise;
    QFuture<WrittenFile> future = promise.future();
    promise.start();
    promise.setException(error);
    promise.finish();
    return future;
}

} // namespace

SerialQueue &exportQueue()
{
    // Never torn down: an export still running when the process exits must not hold it up.
    static SerialQueue *queue = [] {
        auto *made = new SerialQueue("com.quillfen.vantrel.export", "vt-export");
        // A save is a burst: tens to hundreds of megabytes copied into the file at once (and,
        // when the armed AAC does not cover the clip, its audio encoded on both cores). On a
        // machine whose cores the capture and the encoder already fill, at the same priority
        // that burst took the encoder's turns and the capture skipped frames. Ten nice levels
        // down, the save runs in what they leave (the encoder threads it starts inherit this).
        // Four 30 s saves each way, alternating, on a busy two-core machine: 7 frames lost at
        // the normal priority, none at this one; the save took 0.12 to 0.15 s against 0.12 to
        // 0.24 s.
        made->async([] {
            setpriority(PRIO_PROCESS, pid_t(syscall(SYS_gettid)), saveNiceness);
            syscall(SYS_ioprio_set, ioprioWhoProcess, 0, lowestBestEffortIo);
        });
        return made;
    }();
    return *queue;
}

QString newClipPath()
{
    const QString stamp =
        QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH-mm-ss"));
    return QDir(Paths::recordings())
        .filePath(QStringLiteral("Clip %1 %2.mp4").arg(stamp, newUuidText().left(6)));
}

QFuture<WrittenFile> exportClip(const ReplayBuffer::Snapshot &snapshot, Options options)
{
    const auto &video = snapshot.video;
    const size_t first = clipStart(video, options.lengthSeconds);
    const size_t frameCount = video.size() - first;
    int64_t keys = 0;
    for (size_t i = first; i < video.size(); ++i)
        keys += video[i].isKey ? 1 : 0;
    Log::system(QStringLiteral("export video=%1 audio=%2 in=%3 encoded=%4 keys=%5")
                    .arg(frameCount)
                    .arg(snapshot.audio.size())
                    .arg(options.framesIn)
                    .arg(options.framesEncoded)
                    .arg(keys));
    if (frameCount == 0 || !snapshot.videoFormat)
        return failedFuture(RecorderError::stillStarting());

    ClipExportJob::Plan plan;
    const MediaTime base = video[first].pts;
    plan.frames.reserve(frameCount);
    for (size_t i = first; i < video.size(); ++i) {
        ReplayBuffer::EncodedFrame frame = video[i];
        frame.pts = max(MediaTime::zero(), frame.pts - base);
        plan.frames.push_back(std::move(frame));
    }
    plan.videoFormat = snapshot.videoFormat;
    plan.audio = shiftedAudio(snapshot.audio, base);
    plan.audioFormat = snapshot.audioFormat;
    plan.mic = shiftedAudio(snapshot.mic, base);
    plan.micFormat = snapshot.micFormat;
    holdLastPictureToTheEnd(plan.frames.back(), {endOf(plan.audio), endOf(plan.mic)});
    plan.askedSeconds = options.lengthSeconds;
    plan.seconds = (plan.frames.back().pts + plan.frames.back().duration).seconds();
    if (plan.askedSeconds > 0 && plan.seconds + 0.5 < plan.askedSeconds)
        Log::system(QStringLiteral("export holds %1 s of the %2 s asked for")
                        .arg(plan.seconds, 0, 'f', 1)
                        .arg(plan.askedSeconds));
    plan.sourceBase = base;
    plan.audioHistory = {std::move(options.audioHistory), endOf(snapshot.audio)};
    plan.micHistory = {std::move(options.micHistory), endOf(snapshot.mic)};
    plan.finalPath = newClipPath();
    plan.tempPath = newTemporaryPath();
    plan.timeLimit = options.timeLimit;
    plan.onWriterDone = std::move(options.onWriterDone);
    QFile::remove(plan.tempPath);

    QPromise<WrittenFile> promise;
    QFuture<WrittenFile> future = promise.future();
    promise.start();
    ClipExportJob::start(std::move(plan), std::move(promise), exportQueue());
    return future;
}

} // namespace ClipExport
