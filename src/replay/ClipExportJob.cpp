#include "replay/ClipExportJob.h"

#include "core/Log.h"
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
    settings.sampleRate = format && format->sampleRate >= 8000 ? format->sampleRate : 48000;
    settings.channels = !format || format->channels >= 2 ? 2 : 1;
    settings.bitRate = 192000;
    return settings;
}

} // namespace

void ClipExportJob::start(Plan plan, QPromise<QString> promise, SerialQueue &queue)
{
    auto job = std::make_shared<ClipExportJob>(std::move(plan), std::move(promise), queue);
    job->m_self = job;
    queue.async([job] { job->writeMP4(); });
}

ClipExportJob::ClipExportJob(Plan plan, QPromise<QString> promise, SerialQueue &queue)
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
        m_promise.finish();
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
    const auto video = m_writer->addVideoInput(m_plan.videoFormat, false);
    if (!video) {
        fail(QStringLiteral("Could not create the clip file."));
        release();
        return;
    }
    m_video.bridge = {m_writer.get(), *video};
    m_video.added = true;
    // An audio track that cannot be added is left out of the clip.
    if (!m_plan.audio.empty() && m_plan.audioFormat)
        addAudio(m_audio, m_plan.audioHistory, m_plan.audioFormat, "audio");
    if (!m_plan.mic.empty() && m_plan.micFormat)
        addAudio(m_mic, m_plan.micHistory, m_plan.micFormat, "mic");

    if (!m_writer->startWriting()) {
        const QString error = m_writer->error();
        fail(error.isEmpty() ? QStringLiteral("Could not start writing the MP4.") : error);
        release();
        return;
    }
    m_writer->startSession(MediaTime::zero());

    std::weak_ptr<ClipExportJob> weak = weak_from_this();
    m_timeLimit = m_queue.asyncAfter(m_plan.timeLimit, [weak] {
        if (auto job = weak.lock())
            job->fail(QStringLiteral("Timed out saving the clip."));
    });

    m_remaining.emplace(1 + (m_audio.added ? 1 : 0) + (m_mic.added ? 1 : 0));
    // The job outlives its writer, so the pumps may hold it plainly.
    m_writer->requestMediaDataWhenReady(m_video.bridge.input, [this] { pump(Track::video); });
    if (m_audio.added)
        m_writer->requestMediaDataWhenReady(m_audio.bridge.input, [this] { pump(Track::audio); });
    if (m_mic.added)
        m_writer->requestMediaDataWhenReady(m_mic.bridge.input, [this] { pump(Track::mic); });
}

void ClipExportJob::addAudio(Feed &feed, const Plan::Reuse &reuse, const AudioFormatPtr &format,
                             const char *name)
{
    if (reuse.history) {
        std::optional<EncodedAudioHistory::Clip> clip =
            reuse.history->clip(m_plan.sourceBase, reuse.end, reuseWait);
        const auto input = clip ? m_writer->addEncodedAudioInput(*clip->parameters) : std::nullopt;
        if (input) {
            feed.bridge = {m_writer.get(), *input};
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
    if (const auto input = m_writer->addAudioInput(aacInput(format), false)) {
        feed.bridge = {m_writer.get(), *input};
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
    while (m_writer->isReadyForMoreMediaData(feed.bridge.input)) {
        if (feed.next >= count) {
            finishInput(feed);
            return;
        }
        const size_t index = feed.next++;
        if (feed.reused()) {
            bool written = false;
            try {
                written = m_writer->appendEncoded(feed.bridge.input, *feed.encoded[index]);
            } catch (const std::exception &) {
            }
            if (!written && track == Track::audio)
                m_failedAudio.increment();
            continue;
        }
        VTLError error {};
        switch (track) {
        case Track::video: {
            const auto sample = makeVideoSample(m_plan.frames[index], m_plan.videoFormat);
            if (!sample) {
                m_failedVideo.increment();
            } else if (!VTLAppendSample(&feed.bridge, &*sample, &error)) {
                m_failedVideo.increment();
                const QString text = vtlErrorText(error);
                Log::system(QStringLiteral("video append failed: %1")
                                .arg(text.isEmpty() ? QStringLiteral("unknown") : text));
            }
            break;
        }
        case Track::audio: {
            const auto sample = makeAudioSample(m_plan.audio[index], m_plan.audioFormat);
            if (!sample || !VTLAppendSample(&feed.bridge, &*sample, &error))
                m_failedAudio.increment();
            break;
        }
        case Track::mic: {
            // A microphone packet that cannot be written is simply skipped.
            if (const auto sample = makeAudioSample(m_plan.mic[index], m_plan.micFormat))
                VTLAppendSample(&feed.bridge, &*sample, nullptr);
            break;
        }
        }
    }
}

void ClipExportJob::finishInput(Feed &feed)
{
    feed.finished.resume([&] {
        m_writer->markAsFinished(feed.bridge.input);
        if (m_remaining->decrement() == 0)
            finishIfNeeded();
    });
}

void ClipExportJob::finishIfNeeded()
{
    m_timeLimit.cancel();
    const int64_t failedVideo = m_failedVideo.count();
    Log::system(QStringLiteral("video append failed=%1 / %2, audio failed=%3 / %4")
                    .arg(failedVideo)
                    .arg(m_plan.frames.size())
                    .arg(m_failedAudio.count())
                    .arg(feedSize(Track::audio)));
    if (failedVideo == int64_t(m_plan.frames.size())) {
        fail(QStringLiteral("Could not write video into the clip."));
        release();
        return;
    }
    m_writer->finishWriting([this] { onWriterFinished(); });
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
                m_promise.addResult(m_plan.finalPath);
            else
                m_promise.setException(RecorderError::writerFailed(moveError));
            m_promise.finish();
        });
    } else {
        fail(error.isEmpty() ? QStringLiteral("Clip file was empty.") : error);
    }
    release();
}
