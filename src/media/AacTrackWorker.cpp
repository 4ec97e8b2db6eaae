#include "media/AacTrackWorker.h"

#include "media/RecorderError.h"

AacTrackWorker::AacTrackWorker(std::unique_ptr<AacEncoder> encoder,
                               std::function<void()> onProgress)
    : m_encoder(std::move(encoder))
    , m_onProgress(std::move(onProgress))
    , m_queue("com.quillfen.vantrel.aac", "vt-aac")
{
}

AacTrackWorker::~AacTrackWorker()
{
    m_cancelled = true;
}

void AacTrackWorker::submit(AudioRun audio)
{
    const int64_t samples = audio.silence + audio.count;
    m_backlog += samples;
    m_queue.async([this, audio = std::move(audio), samples] {
        run([&](std::vector<FFmpeg::PacketPtr> &out) { m_encoder->encode(audio, out); }, false);
        m_backlog -= samples;
        if (m_onProgress && !m_cancelled)
            m_onProgress();
    });
}

void AacTrackWorker::finish()
{
    m_queue.async([this] {
        run([&](std::vector<FFmpeg::PacketPtr> &out) { m_encoder->flush(out); }, true);
        if (m_onProgress && !m_cancelled)
            m_onProgress();
    });
}

void AacTrackWorker::run(const std::function<void(std::vector<FFmpeg::PacketPtr> &)> &step,
                         bool isLast)
{
    if (m_cancelled)
        return;
    std::vector<FFmpeg::PacketPtr> packets;
    QString error;
    if (!m_failed) {
        try {
            step(packets);
        } catch (const RecorderError &e) {
            error = e.text();
        } catch (const std::exception &e) {
            error =
                QStringLiteral("Could not encode the audio: %1").arg(QString::fromUtf8(e.what()));
        }
    }
    std::scoped_lock lock(m_lock);
    for (auto &packet : packets)
        m_output.packets.push_back(std::move(packet));
    if (!error.isEmpty()) {
        // A failed encoder is not used again: the track ends here and the writer learns why.
        m_failed = true;
        m_output.error = error;
        m_output.finished = true;
    }
    if (isLast)
        m_output.finished = true;
    if (m_output.finished)
        m_drained = true;
}

AacTrackWorker::Output AacTrackWorker::take()
{
    std::scoped_lock lock(m_lock);
    Output out = std::move(m_output);
    m_output = Output {};
    m_output.finished = out.finished;
    return out;
}
