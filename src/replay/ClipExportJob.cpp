#include "replay/ClipExportJob.h"

#include "core/Log.h"
#include "core/SharedPool.h"
#include "media/RecorderError.h"
#include "replay/FileMove.h"

#include <QFile>
#include <QFileInfo>

namespace {

// How long a save may wait for the session file's encoder to reach the end of the clip's audio:
// it runs live, a frame or two behind the capture. Past this the clip encodes its own audio.
constexpr std::chrono::milliseconds reuseWait {300};

Mp4Writer::AudioSettings aacInput(const AudioFormatPtr &format)
{
    Mp4Writer::AudioSettings settings;
    if (format && format->sampleRate >= 8000)
        settings.sampleRate = format->sampleRate;
    settings.channels = !format || format->channels >= 2 ? 2 : 1;
    return settings;
}

} // namespace

void ClipExportJob::start(Plan plan, QPromise<WrittenFile> promise, SerialQueue &queue)
{
    auto job = std::make_shared<ClipExportJob>(std::move(plan), std::move(promise), queue);
    job->m_self = job;
    queue.async([job] { job->writeMP4(); });
}

ClipExportJob::ClipExportJob(Plan plan, QPromise<WrittenFile> promise, SerialQueue &queue)
    : m_plan(std::move(plan))
    , m_promise(std::move(promise))
    , m_queue(queue)
{
}

ClipExportJob::~ClipExportJob()
{
    // The writer goes first: its encoder threads stop before anyone hears the export is over.
    m_writer.reset();
    if (m_plan.onWriterDone)
        m_plan.onWriterDone();
}

void ClipExportJob::fail(const QString &message)
{
    m_answer.resume([&] {
        QFile::remove(m_plan.tempPath);
        m_promise.setException(RecorderError::writerFailed(message));
        SharedPool::finishAndRelease(m_promise);
    });
}

void ClipExportJob::release()
{
    m_queue.async([self = std::move(m_self)] {});
}

void ClipExportJob::writeMP4()
{
    try {
        m_writer = std::make_unique<Mp4Writer>(m_plan.tempPath, m_queue);
    } catch (const RecorderError &error) {
        fail(error.text());
        release();
        return;
    }
    const auto video = m_writer->addVideoStream(m_plan.videoFormat, false);
    if (!video) {
        fail(QStringLiteral("Could not create the clip file."));
        release();
        return;
    }
    m_video.input = *video;
    m_video.added = true;
    m_video.wanted = true;
    // An audio track that cannot be added is left out of the clip, and the answer says so.
    m_audio.wanted = !m_plan.audio.empty() && m_plan.audioFormat;
    m_mic.wanted = !m_plan.mic.empty() && m_plan.micFormat;
    if (m_audio.wanted)
        addAudio(m_audio, m_plan.audioHistory, m_plan.audioFormat, "audio");
    if (m_mic.wanted)
        addAudio(m_mic, m_plan.micHistory, m_plan.micFormat, "mic");

    if (!m_writer->writeHeader()) {
        const QString error = m_writer->error();
        fail(error.isEmpty() ? QStringLiteral("Could not start writing the MP4.") : error);
        release();
        return;
    }
    m_writer->setTimeOrigin(MediaTime::zero());

    std::weak_ptr<ClipExportJob> weak = weak_from_this();
    m_timeLimit = m_queue.asyncAfter(m_plan.timeLimit, [weak] {
        if (auto job = weak.lock())
            job->fail(QStringLiteral("Timed out saving the clip."));
    });

    m_remaining.emplace(1 + (m_audio.added ? 1 : 0) + (m_mic.added ? 1 : 0));
    // The job outlives its writer, so the pumps may hold it plainly.
    m_writer->setFeeder(m_video.input, [this] { pump(Track::video); });
    if (m_audio.added)
        m_writer->setFeeder(m_audio.input, [this] { pump(Track::audio); });
    if (m_mic.added)
        m_writer->setFeeder(m_mic.input, [this] { pump(Track::mic); });
}

void ClipExportJob::addAudio(Feed &feed, const Plan::Reuse &reuse, const AudioFormatPtr &format,
                             const char *name)
{
    if (reuse.history) {
        std::optional<EncodedAudioHistory::Clip> clip =
            reuse.history->clip(m_plan.sourceBase, reuse.end, reuseWait);
        const auto input = clip ? m_writer->addEncodedAudioStream(*clip->parameters) : std::nullopt;
        if (input) {
            feed.input = *input;
            feed.added = true;
            feed.encoded = std::move(clip->packets);
            Log::system(QStringLiteral("export %1: %2 AAC packets taken from the session")
                            .arg(QLatin1String(name))
                            .arg(feed.encoded.size()));
            return;
        }
        Log::system(QStringLiteral("export %1: encoding it, the armed AAC does not cover the clip")
                        .arg(QLatin1String(name)));
    }
    if (const auto input = m_writer->addAudioStream(aacInput(format), false)) {
        feed.input = *input;
        feed.added = true;
    }
}

size_t ClipExportJob::feedSize(Track track) const
{
    switch (track) {
    case Track::video:
        return m_plan.frames.size();
    case Track::audio:
        return m_audio.reused() ? m_audio.encoded.size() : m_plan.audio.size();
    case Track::mic:
        return m_mic.reused() ? m_mic.encoded.size() : m_plan.mic.size();
    }
    return 0;
}

void ClipExportJob::pump(Track track)
{
    Feed &feed = track == Track::video ? m_video : (track == Track::audio ? m_audio : m_mic);
    const size_t count = feedSize(track);
    while (m_writer->canTakeMore(feed.input)) {
        if (feed.next >= count) {
            finishInput(feed);
            return;
        }
        const size_t index = feed.next++;
        Mp4Writer::WriteError error;
        bool written = false;
        if (feed.reused()) {
            written = m_writer->writePacket(feed.input, *feed.encoded[index], &error);
        } else {
            std::optional<MediaSample> sample;
            switch (track) {
            case Track::video:
                sample = makeVideoSample(m_plan.frames[index], m_plan.videoFormat);
                break;
            case Track::audio:
                sample = makeAudioSample(m_plan.audio[index], m_plan.audioFormat);
                break;
            case Track::mic:
                sample = makeAudioSample(m_plan.mic[index], m_plan.micFormat);
                break;
            }
            written = sample && m_writer->writeSample(feed.input, *sample, &error);
        }
        if (written)
            continue;
        feed.failed.increment();
        // One line for the first record a track loses: a writer that refuses one usually
        // refuses many, and the count comes at the end.
        if (feed.failed.count() == 1)
            Log::system(QStringLiteral("%1 append failed: %2")
                            .arg(track == Track::video
                                     ? QStringLiteral("video")
                                     : (track == Track::audio ? QStringLiteral("audio")
                                                              : QStringLiteral("mic")),
                                 error.description.isEmpty() ? QStringLiteral("unknown")
                                                             : error.description));
    }
}

void ClipExportJob::finishInput(Feed &feed)
{
    feed.finished.resume([&] {
        m_writer->endStream(feed.input);
        if (m_remaining->decrement() == 0)
            finishIfNeeded();
    });
}

void ClipExportJob::finishIfNeeded()
{
    m_timeLimit.cancel();
    const int64_t failedVideo = m_video.failed.count();
    Log::system(
        QStringLiteral("video append failed=%1 / %2, audio failed=%3 / %4, mic failed=%5 / %6")
            .arg(failedVideo)
            .arg(m_plan.frames.size())
            .arg(m_audio.failed.count())
            .arg(feedSize(Track::audio))
            .arg(m_mic.failed.count())
            .arg(feedSize(Track::mic)));
    if (failedVideo == int64_t(m_plan.frames.size())) {
        fail(QStringLiteral("Could not write video into the clip."));
        release();
        return;
    }
    m_writer->flush([this] { onWriterFinished(); });
}

Shortfall ClipExportJob::shortfall() const
{
    Shortfall out;
    out.frames = int64_t(m_plan.frames.size());
    out.framesLost = m_video.failed.count();
    const auto track = [&](const Feed &feed, Track which, size_t snapshotPackets, int64_t &lost,
                           int64_t &packets) {
        if (!feed.wanted)
            return;
        packets = feed.added ? int64_t(feedSize(which)) : int64_t(snapshotPackets);
        lost = feed.added ? feed.failed.count() : packets;
    };
    track(m_audio, Track::audio, m_plan.audio.size(), out.audioLost, out.audioPackets);
    track(m_mic, Track::mic, m_plan.mic.size(), out.micLost, out.micPackets);
    return out;
}

void ClipExportJob::onWriterFinished()
{
    m_timeLimit.cancel();
    const QFileInfo temp(m_plan.tempPath);
    const qint64 size = temp.exists() ? temp.size() : 0;
    const Mp4Writer::Status status = m_writer->status();
    const QString error = m_writer->error();
    Log::system(QStringLiteral("finish status=%1 size=%2 error=%3")
                    .arg(int(status))
                    .arg(size)
                    .arg(error.isEmpty() ? QStringLiteral("none") : error));
    if (status == Mp4Writer::Status::completed && size > 1000) {
        m_answer.resume([&] {
            const QString moveError = FileMove::moveReplacing(m_plan.tempPath, m_plan.finalPath);
            QFile::remove(m_plan.tempPath);
            if (moveError.isEmpty())
                m_promise.addResult(WrittenFile {m_plan.finalPath, shortfall(), m_plan.askedSeconds,
                                                 m_plan.seconds});
            else
                m_promise.setException(RecorderError::writerFailed(moveError));
            SharedPool::finishAndRelease(m_promise);
        });
    } else {
        fail(error.isEmpty() ? QStringLiteral("Clip file was empty.") : error);
    }
    release();
}
