#pragma once

#include "media/AudioSampleBuffer.h"
#include "media/VideoFrame.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

class SerialQueue;

// One display that can be captured; on X11 a RandR monitor, in root-window coordinates.
struct CaptureDisplay
{
    uint32_t displayID = 0;
    int x = 0;
    int y = 0;
    int width = 0; // pixels
    int height = 0;
    bool primary = false;
};

struct ShareableContent
{
    std::vector<CaptureDisplay> displays;
};

// The display to capture: the one containing the pointer, else the primary one, else the first;
// none when the list is empty.
std::optional<CaptureDisplay> chooseCaptureDisplay(const std::vector<CaptureDisplay> &displays,
                                                   std::optional<std::pair<int, int>> pointer);

struct StreamConfiguration
{
    int width = 0; // the capture size: the display is scaled to it
    int height = 0;
    int fps = 60;
    int queueDepth = 3; // frames in flight at most; a frame with no free slot is skipped
    bool showsCursor = true;
    bool capturesAudio = true;
    int sampleRate = AudioDefaults::sampleRate;
    int channelCount = AudioDefaults::channels;
    bool captureMicrophone = false;
    // The `application.name` whose sound alone is the system audio; empty for everything the
    // default output plays.
    std::string soundSource = {};
    // Sentences for the user's log (the audio followed the user to another device), on any
    // thread.
    std::function<void(const std::string &)> onNotice = nullptr;
};

enum class StreamOutputType { screen, audio, microphone };

// A running capture of one display with its audio: one backend's screen-capture stream. Outputs
// are delivered one sample at a time on the serial queue given for each; the samples' memory is
// valid until the handler returns (frames keep theirs alive through `VideoFrame::owner`). A frame
// is handed over to its handler to keep: the capture's buffer goes back to its pool as soon as the
// handler lets go of `owner`, which may be before it returns.
class ScreenStream
{
public:
    using FrameHandler = std::function<void(VideoFrame)>;
    using AudioHandler = std::function<void(const AudioSampleBuffer &)>;
    // The stream ended on its own (the X server went away, the display was unplugged, the
    // audio server died); the text says why. Called at most once, on any thread, and never
    // after stopCapture() was called. It must not destroy the stream.
    using StopHandler = std::function<void(const std::string &error)>;
    // Called once, on any thread: no value on success, else why the start failed.
    using StartCompletion = std::function<void(std::optional<std::string> error)>;

    // What the stream has done since it started.
    struct Stats
    {
        int64_t complete = 0; // grabbed and delivered
        int64_t idle = 0; // nothing changed: the newest picture again (without one, no pixels)
        int64_t skipped = 0; // no free buffer, or the consumer had queueDepth frames waiting
        int64_t late = 0; // ticks missed because a tick overran its slot
        int64_t unchanged = 0; // ticks that found the screen as it was: nothing to grab
    };

    virtual ~ScreenStream() = default;

    // Add outputs before starting. Throw std::runtime_error when the output cannot be added. The
    // queues must outlive the stream's stopCapture().
    virtual void addScreenOutput(SerialQueue &queue, FrameHandler handler) = 0;
    virtual void addAudioOutput(StreamOutputType type, SerialQueue &queue,
                                AudioHandler handler) = 0;
    virtual void setStopHandler(StopHandler handler) = 0;

    virtual void startCapture(StartCompletion completion) = 0;
    // Stops delivering and releases the display and the audio server; returns once no handler
    // will be called any more. Safe to call twice, and after the stream stopped on its own.
    virtual void stopCapture() = 0;
    // Zeros from a stream that does not count.
    virtual Stats stats() const { return {}; }
};

// The capture service of a backend: lists the displays and makes streams. The backend is chosen
// at run time (VANTREL_CAPTURE=x11|wayland forces one).
class ScreenCaptureService
{
public:
    virtual ~ScreenCaptureService() = default;

    // Throws std::runtime_error when the displays cannot be listed (no X server, say).
    virtual ShareableContent shareableContent() = 0;
    // The pointer in the same coordinates as the displays, when it can be asked for.
    virtual std::optional<std::pair<int, int>> pointerLocation() = 0;
    virtual std::unique_ptr<ScreenStream> makeStream(const CaptureDisplay &display,
                                                     const StreamConfiguration &config) = 0;

    // The backend for this session (see DisplaySession::chooseCapture), logged with the reason.
    // Throws std::runtime_error with a sentence for the user when there is none.
    static std::unique_ptr<ScreenCaptureService> create();
};

// Thrown by a backend whose desktop asks the user before the screen may be recorded, when the
// user cancelled or the desktop refused. Arming again (and answering) is the way out.
struct CaptureNotAllowed : std::runtime_error
{
    CaptureNotAllowed(const std::string &what, bool cancelled)
        : std::runtime_error(what)
        , cancelled(cancelled)
    {
    }
    const bool cancelled; // the user cancelled, rather than the desktop refusing
};
