#include "replay/SessionRecorder.h"

#include "core/Paths.h"
#include "replay/FileMove.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QUuid>

namespace {

template<typename T> void pushBounded(std::deque<T> &list, T item, bool bounded, size_t limit)
{
    list.push_back(std::move(item));
    while (bounded && list.size() > limit)
        list.pop_front();
}

} // namespace

SessionRecorder::SessionRecorder(bool includeMic)
    : m_includeMic(includeMic)
    , m_audioHistory(std::make_shared<EncodedAudioHistory>())
    , m_micHistory(includeMic ? std::make_shared<EncodedAudioHistory>() : nullptr)
    , m_queue("com.quillfen.vantrel.session", "vt-session")
{
}

SessionRecorder::~SessionRecorder()
{
    // The writer goes on the queue, before the queue itself: its audio workers post there.
    m_queue.sync([this] {
        m_finished = true;
        const bool abandoned = m_writer && !m_finishCompleted;
        m_writer.reset();
        if (abandoned)
            QFile::remove(m_path);
        if (!m_finishCompleted)
            completeFinish({});
    });
}

void SessionRecorder::appendVideo(const ReplayBuffer::EncodedFrame &frame,
                                  const VideoFormatPtr &format)
{
    m_queue.async([this, frame, format] {
        if (m_finished)
            return;
        m_videoFormat = format;
        pushBounded(m_pendingVideo, frame, !m_writer, maxPendingVideo);
        drain();
    });
}

void SessionRecorder::appendAudio(const ReplayBuffer::AudioPacket &packet)
{
    m_queue.async([this, packet] {
        if (m_finished)
            return;
        noteSoundEnd(packet);
        pushBounded(m_pendingAudio, packet, !m_writer, maxPendingAudio);
        drain();
    });
}

void SessionRecorder::appendMic(const ReplayBuffer::AudioPacket &packet)
{
    m_queue.async([this, packet] {
        if (m_finished)
            return;
        noteSoundEnd(packet);
        pushBounded(m_pendingMic, packet, !m_writer, maxPendingAudio);
        drain();
    });
}

void SessionRecorder::noteSoundEnd(const ReplayBuffer::AudioPacket &packet)
{
    const MediaTime end = packet.pts + packet.duration;
    if (end.isValid() && (!m_soundEnd.isValid() || m_soundEnd < end))
        m_soundEnd = end;
}

void SessionRecorder::drain()
{
    if (!m_writer) {
        if (!m_videoFormat)
            return;
        const auto key = std::find_if(m_pendingVideo.begin(), m_pendingVideo.end(),
                                      [](const auto &frame) { return frame.isKey; });
        if (key == m_pendingVideo.end())
            return;
        startWriter(m_videoFormat, key->pts);
        if (!m_videoInput)
            return;
    }
    if (m_writer->status() != Mp4Writer::Status::writing || !m_videoFormat)
        return;

    // The newest frame waits for the next one, or for the end: its duration then reaches the
    // end of the sound, so that a still screen (a frame about once a second) leaves no second
    // of sound without a picture at the end of the file.
    const size_t held = m_finishing ? 0 : 1;
    while (m_pendingVideo.size() > held && m_writer->canTakeMore(*m_videoInput)) {
        ReplayBuffer::EncodedFrame frame = std::move(m_pendingVideo.front());
        m_pendingVideo.pop_front();
        if (m_pendingVideo.empty() && m_soundEnd.isValid() &&
            frame.pts + frame.duration < m_soundEnd)
            frame.duration = m_soundEnd - frame.pts;
        // Frames before the key frame the file starts at could not be decoded; the writer's
        // timeline begins there and refuses them. Either way they are skipped quietly.
        if (frame.pts < m_startPTS)
            continue;
        ++m_shortfall.frames;
        const auto sample = makeVideoSample(frame, m_videoFormat);
        if (!sample || !m_writer->writeSample(*m_videoInput, *sample))
            ++m_shortfall.framesLost;
    }
    appendPending(m_pendingAudio, m_audioInput, m_shortfall.audioPackets, m_shortfall.audioLost);
    appendPending(m_pendingMic, m_micInput, m_shortfall.micPackets, m_shortfall.micLost);
}

void SessionRecorder::appendPending(std::deque<ReplayBuffer::AudioPacket> &pending,
                                    std::optional<Mp4Writer::Stream> input, int64_t &packets,
                                    int64_t &lost)
{
    // Without its input (the writer would not add the track) a packet is lost at once, rather
    // than held for a track that never comes.
    while (!pending.empty() && (!input || m_writer->canTakeMore(*input))) {
        const ReplayBuffer::AudioPacket packet = std::move(pending.front());
        pending.pop_front();
        if (m_startPTS.isValid() && packet.pts < m_startPTS)
            continue;
        ++packets;
        const auto sample = input ? makeAudioSample(packet, packet.format) : std::nullopt;
        if (!sample || !m_writer->writeSample(*input, *sample))
            ++lost;
    }
}

Mp4Writer::AudioSettings SessionRecorder::aacInput()
{
    // The capture's own rate and layout.
    return {};
}

void SessionRecorder::startWriter(const VideoFormatPtr &format, MediaTime at)
{
    const QString path =
        QDir(QDir::tempPath())
            .filePath(QStringLiteral("vantrel-session-%1.mp4")
                          .arg(QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper()));
    QFile::remove(path);

    // Any failure leaves the recorder without a writer; it tries again at the next sample, and
    // remembers why for the answer of a finish that comes first.
    std::unique_ptr<Mp4Writer> writer;
    try {
        writer = std::make_unique<Mp4Writer>(path, m_queue);
    } catch (const std::exception &error) {
        m_startFailure = QString::fromUtf8(error.what());
        return;
    }
    const std::optional<Mp4Writer::Stream> video = writer->addVideoStream(format, true);
    if (!video) {
        m_startFailure = QStringLiteral("The video track could not be added.");
        return;
    }
    const std::optional<Mp4Writer::Stream> audio = writer->addAudioStream(aacInput(), true);
    const std::optional<Mp4Writer::Stream> mic =
        m_includeMic ? writer->addAudioStream(aacInput(), true) : std::nullopt;
    if (audio)
        writer->keepEncodedAudio(*audio, m_audioHistory);
    if (mic)
        writer->keepEncodedAudio(*mic, m_micHistory);
    if (!writer->writeHeader()) {
        m_startFailure = writer->error();
        writer.reset();
        QFile::remove(path);
        return;
    }
    writer->setTimeOrigin(at);
    m_writer = std::move(writer);
    m_videoInput = video;
    m_audioInput = audio;
    m_micInput = mic;
    m_startPTS = at;
    m_path = path;
}

QFuture<SessionOutcome> SessionRecorder::finish(bool keep)
{
    auto waiter = std::make_shared<QPromise<Result>>();
    waiter->start();
    QFuture<Result> answer = waiter->future();
    m_queue.async([this, keep, waiter] {
        if (m_finishCompleted) {
            waiter->addResult(keep ? m_finishResult : Result());
            waiter->finish();
            return;
        }
        m_finishWaiters.push_back(waiter);
        if (m_finishing)
            return;
        m_finishing = true;
        m_finished = true;
        if (m_writer)
            drain();
        for (const auto &input : {m_videoInput, m_audioInput, m_micInput}) {
            if (input)
                m_writer->endStream(*input);
        }
        if (!m_writer || m_path.isEmpty()) {
            // A file that was to be kept but never started says why, when something stopped it.
            Result result;
            if (keep && !m_startFailure.isEmpty())
                result.failure = m_startFailure;
            completeFinish(result);
            return;
        }
        // The completion runs on this queue; the recorder outlives it (see the destructor).
        m_writer->flush([this, keep] { conclude(keep); });
    });
    return answer;
}

void SessionRecorder::conclude(bool keep)
{
    const qint64 size = QFileInfo(m_path).size();
    // The writer itself stays until the recorder goes: this runs inside its completion.
    const bool completed = m_writer->status() == Mp4Writer::Status::completed;
    if (keep && completed && size >= 1001) {
        const std::optional<QString> moved = moveSessionIntoLibrary(m_path);
        completeFinish({WrittenFile {moved.value_or(m_path), m_shortfall}, {}});
        return;
    }
    QFile::remove(m_path);
    Result result;
    // Too short to keep is no failure; a writer that failed is.
    if (keep && !completed) {
        const QString error = m_writer->error();
        result.failure =
            error.isEmpty() ? QStringLiteral("The session file could not be finished.") : error;
    }
    completeFinish(result);
}

void SessionRecorder::completeFinish(Result result)
{
    m_finishCompleted = true;
    m_finishResult = result;
    std::vector<Waiter> waiters;
    waiters.swap(m_finishWaiters);
    for (const Waiter &waiter : waiters) {
        waiter->addResult(result);
        waiter->finish();
    }
}

std::optional<QString> SessionRecorder::moveSessionIntoLibrary(const QString &source)
{
    const QString stamp =
        QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH-mm-ss"));
    const QString destination =
        QDir(Paths::recordings()).filePath(QStringLiteral("Session %1.mp4").arg(stamp));
    // A session file of the same second is replaced. A failed copy leaves the source in place.
    QFile::remove(destination);
    FileMove::moveReplacing(source, destination);
    if (QFile::exists(destination))
        return destination;
    return std::nullopt;
}
