#include "capture/AudioScreenStream.h"

#include "capture/pulse/PulseAudioCapture.h"

#include <stdexcept>

AudioScreenStream::AudioScreenStream(const StreamConfiguration &config)
    : m_audioConfig(config)
{
}

AudioScreenStream::~AudioScreenStream() = default;

void AudioScreenStream::addAudioOutput(StreamOutputType type, SerialQueue &queue,
                                       AudioHandler handler)
{
    if (hasStarted())
        throw std::runtime_error("Outputs must be added before the capture starts.");
    if (type == StreamOutputType::screen)
        throw std::runtime_error("The screen output is added with addScreenOutput.");
    const bool microphone = type == StreamOutputType::microphone;
    if (microphone ? !m_audioConfig.captureMicrophone : !m_audioConfig.capturesAudio)
        return;
    if (!m_audio) {
        m_audio = std::make_unique<PulseAudioCapture>(
            m_audioConfig.sampleRate, m_audioConfig.channelCount, m_audioConfig.onNotice);
        if (!m_audioConfig.soundSource.empty())
            m_audio->recordApplication(m_audioConfig.soundSource);
    }
    m_audio->addOutput(microphone ? PulseAudioCapture::Source::microphone
                                  : PulseAudioCapture::Source::system,
                       queue, std::move(handler));
}

void AudioScreenStream::startAudio()
{
    if (m_audio)
        m_audio->start();
}

void AudioScreenStream::stopAudio(bool waitForHandlers)
{
    if (m_audio)
        m_audio->stop(waitForHandlers);
}

std::optional<std::string> AudioScreenStream::audioFailure() const
{
    return m_audio ? m_audio->failure() : std::nullopt;
}
