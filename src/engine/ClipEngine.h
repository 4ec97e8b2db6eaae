#pragma once

#include "capture/ScreenStream.h"
#include "replay/ReplayBuffer.h"
#include "replay/WrittenFile.h"

#include <QFuture>
#include <QPromise>
#include <QSize>
#include <QString>

#include <atomic>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

class PaceWatch;
class SerialQueue;
class SessionRecorder;
class VideoEncoder;

// The one object that owns the live capture. Arming starts a stream of one display with its
// audio, feeds every complete frame to a video encoder whose output goes to the replay buffer,
// and every audio buffer to the replay buffer, which passes all of it on to a session recorder
// that records the whole armed period. Saving exports the buffer's last seconds; stopping tears
// the stream down and keeps or drops the session file.
//
// The asynchronous operations run on the shared thread pool and answer through QFutures: the
// main thread co_awaits them (QCoro, <QCoroFuture>) and resumes on itself without blocking;
// tests wait with waitForFinished() or result(), which rethrow the operation's error. A pool task
// blocks only on the stream, the encoder, the recorder's and the export's queues and the start
// timer, never on another pool task.
//
// The owner arms again only once a stop has answered (the encoder is prepared by a start and
// released by a teardown, and the two must not overlap); a system stop answers through
// onStopped after its teardown, so re-arming from there is safe.
class ClipEngine
{
public:
    using ServiceFactory = std::function<std::unique_ptr<ScreenCaptureService>()>;
    // The system ended the stream; the text says why. Called on a pool thread after the
    // teardown, so the session file of that arming is already gone.
    using StoppedCallback = std::function<void(const std::optional<QString> &error)>;
    // The capture has been losing frames for more than a moment: the computer cannot keep up
    // with the quality asked for. Called once per arming, on the video queue, with the frames a
    // second held, the rate asked for and the capture's height.
    using FallingBehindCallback = std::function<void(double heldFps, int fps, int height)>;
    // Whether the screen may be recorded, and the one-time notice when it may not. The
    // permissions belong to the program around the engine, which hands them in; without them the
    // screen counts as open to capture.
    struct ScreenAccessCheck
    {
        std::function<bool()> isGranted;
        std::function<void()> request;
        // The sentence the user reads when access is missing (what is missing, what to do).
        std::function<QString()> whyNot;
    };

    // A fresh capture service is made at every arming, so a display server that went away and
    // came back is met with a new connection.
    ClipEngine()
        : ClipEngine(&ScreenCaptureService::create)
    {
    }
    explicit ClipEngine(ServiceFactory makeService);
    // Waits for a start in flight and tears an armed capture down, dropping its session file.
    ~ClipEngine();
    ClipEngine(const ClipEngine &) = delete;
    ClipEngine &operator=(const ClipEngine &) = delete;

    // Arms. Fails with a RecorderError whose sentence says what stood in the way: no screen
    // access (notReady), no display to capture, a display, audio server or encoder that could
    // not be opened, a stream that did not start within the start limit. Does nothing when
    // already armed.
    QFuture<void> start();
    // Disarms and answers the session file kept in the recordings folder, if any, with what it
    // lacks, or why a file that was to be kept was lost. Concurrent callers share one teardown
    // and its result, whatever `saveSession` each passed; the result stays until the next
    // start().
    QFuture<SessionOutcome> stop(bool saveSession = true);
    // Exports the buffer's last seconds, the clip length chosen in the settings, and answers the
    // published clip with what it lacks.
    QFuture<WrittenFile> saveClip();
    // The same for a length of `seconds` (a length key, the tray). When the buffer holds less,
    // the clip is all it holds and the answer says so (WrittenFile::isShorterThanAsked). With
    // "clear after save" on, a saved clip's frames and audio leave the buffer, and the encoder
    // makes the next frame a key frame, so the next clip opens right after this one and never
    // repeats it; a save that fails leaves the buffer as it was.
    QFuture<WrittenFile> saveClip(double seconds);

    // What the replay costs in memory, in bytes, when it keeps `seconds` (ClipSettings::
    // keptDuration) with the microphone or not: the video at the encoder's average rate and the
    // audio as captured (48 kHz stereo float), with the two seconds the buffer may keep beyond
    // the length to start on a key frame. A busy screen costs this much; a still one much less.
    static int64_t replayBytes(double seconds, bool mic);

    double bufferedDuration() const { return m_buffer.bufferedDuration(); }
    bool isArmed() const { return m_armed.load(); }
    void setOnStopped(StoppedCallback callback);
    void setOnFallingBehind(FallingBehindCallback callback);
    // Set before the first start.
    void setScreenAccess(ScreenAccessCheck access);
    // How long a stream may take to start; 8 seconds unless set otherwise (tests).
    void setStartLimit(std::chrono::milliseconds limit) { m_startLimit = limit; }

    ReplayBuffer &buffer() { return m_buffer; }
    // Screen samples received while armed, and those of them that showed nothing new (a still
    // screen: the newest picture repeated about once a second); for diagnostics and the
    // benchmarks.
    int64_t framesDelivered() const { return m_framesDelivered.load(); }
    int64_t framesIdle() const { return m_framesIdle.load(); }
    // Frames handed to the encoder, and frames it returned, since the last start.
    int64_t framesIn() const { return m_framesIn.load(); }
    int64_t framesEncoded() const { return m_framesEncoded.load(); }
    // The running stream's own counts (zeros while disarmed).
    ScreenStream::Stats captureStats() const;

    // The capture size for a display of `width` × `height` pixels: both sides even, the longer
    // at most `maxSide`, the aspect kept.
    static QSize captureSize(int width, int height, int maxSide = 1920);
    // An error's text for logs and messages: the text, then its domain and code in parentheses.
    static QString describe(const std::exception_ptr &error);

    // Appends one dated line to the log file and sends the message to the system log too.
    static void log(const QString &message);

private:
    // What one arming brings up. The stream is declared last so that it goes first, before the
    // queues its handlers run on.
    struct Capture
    {
        std::unique_ptr<ScreenCaptureService> service;
        std::unique_ptr<SerialQueue> videoQueue;
        std::unique_ptr<SerialQueue> audioQueue;
        std::unique_ptr<SerialQueue> micQueue;
        std::unique_ptr<ScreenStream> stream;

        // Stops the stream and lets every sample already queued run out, so that nothing
        // reaches the replay buffer afterwards.
        void halt();
    };

    // One teardown and everyone who waits for it: later stop() calls share it, and a system
    // stop's follow-up runs once it is over.
    struct StopTask
    {
        QPromise<SessionOutcome> promise;
        QFuture<SessionOutcome> future;
        bool done = false; // guarded by m_stopLock, like the list
        std::vector<std::function<void()>> afterwards;
    };

    void arm();
    void openEncoder(int width, int height);
    void closeEncoder();
    void addOutputs(Capture &capture, bool mic, const StreamConfiguration &config);
    void watchPace(PaceWatch &watch, const ScreenStream &stream, int height);
    [[noreturn]] void failStart(const std::shared_ptr<Capture> &capture,
                                const std::exception_ptr &error);
    QFuture<SessionOutcome> beginStop(bool saveSession, std::function<void()> afterwards);
    SessionOutcome performStop(bool saveSession);
    void streamDidStop(const std::string &error);
    void clearBufferCallbacks();
    void track(QFuture<void> task);
    void logCaptureCounts(const QString &when) const;
    bool screenAccessGranted() const;

    ServiceFactory m_makeService;
    ReplayBuffer m_buffer; // kept across armings
    // Made by a start before its stream runs and closed by a teardown after the stream has
    // stopped passing frames on, so the video queue, the only other user, never sees it change.
    std::unique_ptr<VideoEncoder> m_encoder;

    // Read by the sample queues without a lock.
    std::atomic<bool> m_armed {false};
    // Set once the engine itself is stopping, so the stream's stop callback does nothing.
    std::atomic<bool> m_ignoringStreamStop {false};
    std::atomic<int64_t> m_framesDelivered {0};
    std::atomic<int64_t> m_framesIdle {0};
    std::atomic<std::chrono::milliseconds> m_startLimit {std::chrono::milliseconds(8000)};
    std::atomic<int64_t> m_framesIn {0};
    std::atomic<int64_t> m_framesEncoded {0};
    // A save emptied the buffer: the video queue asks the encoder for a key frame.
    std::atomic<bool> m_keyFrameWanted {false};

    // m_stopLock guards m_inflightStop, and orders start()'s reset of m_ignoringStreamStop with
    // it. Held only to read or replace them; nothing is awaited or called while it is held.
    std::mutex m_stopLock;
    std::shared_ptr<StopTask> m_inflightStop;

    // m_stateLock guards the members below. Held only to read or swap them.
    mutable std::mutex m_stateLock;
    std::shared_ptr<Capture> m_capture;
    std::shared_ptr<SessionRecorder> m_sessionRecorder;
    StoppedCallback m_onStopped;
    FallingBehindCallback m_onFallingBehind;
    ScreenAccessCheck m_screenAccess;
    std::vector<QFuture<void>> m_tasks; // starts and stops still running
};
