#pragma once

#include "capture/ScreenStream.h"

#include <memory>
#include <optional>
#include <string>

class PulseAudioCapture;

// What every screen stream does the same way with sound: the system's audio and the microphone
// come from the audio server (PulseAudioCapture), whatever gives the pictures. The backend adds
// the pictures; this part takes the audio outputs, and the backend starts, watches and stops the
// audio with its own capture.
class AudioScreenStream : public ScreenStream
{
public:
    ~AudioScreenStream() override;

    // An output whose kind of capture the configuration switched off stays silent.
    void addAudioOutput(StreamOutputType type, SerialQueue &queue, AudioHandler handler) final;

protected:
    explicit AudioScreenStream(const StreamConfiguration &config);

    // The capture has started: outputs can no longer be added.
    virtual bool hasStarted() const = 0;

    // With the capture's start; throws what PulseAudioCapture throws. Nothing without outputs.
    void startAudio();
    // With the capture's stop or end; `waitForHandlers` false from a thread a handler may be
    // waiting for.
    void stopAudio(bool waitForHandlers = true);
    // Why the audio ended on its own (the audio server went away), for the backend to end the
    // whole stream with.
    std::optional<std::string> audioFailure() const;

private:
    const StreamConfiguration m_audioConfig;
    std::unique_ptr<PulseAudioCapture> m_audio;
};
