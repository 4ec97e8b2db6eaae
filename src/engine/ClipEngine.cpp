#include "engine/ClipEngine.h"

#include "core/ClipSettings.h"
#include "core/Log.h"
#include "core/Paths.h"
#include "core/SerialQueue.h"
#include "core/SharedPool.h"
#include "engine/ClipFinish.h"
#include "engine/PaceWatch.h"
#include "engine/StreamStart.h"
#include "media/MonotonicClock.h"
#include "media/RecorderError.h"
#include "replay/ClipExport.h"
#include "replay/SessionRecorder.h"
#include "replay/VideoEncoder.h"

#include <QScopeGuard>

#include <sys/prctl.h>

#include <chrono>
#include <cmath>
#include <stdexcept>
#include <system_error>

namespace {

QString boolText(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

QString textOf(const std::exception_ptr &error)
{
    try {
        std::rethrow_exception(error);
    } catch (const RecorderError &e) {
        return e.text();
    } catch (const std::exception &e) {
        return QString::fromUtf8(e.what());
    } catch (...) {
        return QStringLiteral("unknown error");
    }
}

int evenDown(int value)
{
    return value & ~1;
}

} // namespace

void ClipEngine::Capture::halt()
{
    if (stream)
        stream->stopCapture();
    for (SerialQueue *queue : {videoQueue.get(), audioQueue.get(), micQueue.get()}) {
        if (queue)
            queue->sync([] {});
    }
}

ClipEngine::ClipEngine(ServiceFactory makeService)
    : m_makeService(std::move(makeService))
{
    // libx264 asks for transparent huge pages for its frame buffers, which rounds each of them
    // up to 2 MB: about 7 MB more held for as long as the program is armed, hours beside a game,
    // for no measurable gain in speed. The setting is the process's; nothing else here wants them.
    prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0);
}

ClipEngine::~ClipEngine()
{
    // Waits only: the outcomes (errors included) belong to whoever asked for them.
    std::vector<QFuture<void>> tasks;
    {
        std::scoped_lock lock(m_stateLock);
        tasks = m_tasks;
    }
    for (const auto &task : tasks)
        SharedPool::settle(task);
    SharedPool::settle(stop(false));
    // A system stop may have begun meanwhile; its follow-up must not outlive the engine.
    {
        std::scoped_lock lock(m_stateLock);
        tasks = std::move(m_tasks);
    }
    for (const auto &task : tasks)
        SharedPool::settle(task);
}

void ClipEngine::log(const QString &message)
{
    Log::appendLine(Paths::logFile(), message);
    Log::system(message);
}

void ClipEngine::setOnStopped(StoppedCallback callback)
{
    std::scoped_lock lock(m_stateLock);
    m_onStopped = std::move(callback);
}

void ClipEngine::setOnFallingBehind(FallingBehindCallback callback)
{
    std::scoped_lock lock(m_stateLock);
    m_onFallingBehind = std::move(callback);
}

void ClipEngine::setScreenAccess(ScreenAccessCheck access)
{
    std::scoped_lock lock(m_stateLock);
    m_screenAccess = std::move(access);
}

bool ClipEngine::screenAccessGranted() const
{
    std::function<bool()> isGranted;
    {
        std::scoped_lock lock(m_stateLock);
        isGranted = m_screenAccess.isGranted;
    }
    return !isGranted || isGranted();
}

void ClipEngine::track(QFuture<void> task)
{
    std::scoped_lock lock(m_stateLock);
    std::erase_if(m_tasks, [](const QFuture<void> &t) { return t.isFinished(); });
    m_tasks.push_back(std::move(task));
}

QString ClipEngine::describe(const std::exception_ptr &error)
{
    QString domain = QStringLiteral("Vantrel");
    int code = 0;
    try {
        std::rethrow_exception(error);
    } catch (const RecorderError &e) {
        domain = QStringLiteral("Vantrel.RecorderError");
        code = int(e.kind());
    } catch (const StreamFailure &) {
        domain = QStringLiteral("ScreenStream");
        code = 1;
    } catch (const std::system_error &e) {
        domain = QString::fromUtf8(e.code().category().name());
        code = e.code().value();
    } catch (...) {
    }
    return QStringLiteral("%1 (%2 %3)").arg(textOf(error), domain).arg(code);
}

QSize ClipEngine::captureSize(int width, int height, int maxSide)
{
    const int longer = std::max(width, height);
    if (longer <= maxSide)
        return {evenDown(width), evenDown(height)};
    const double scale = double(maxSide) / longer;
    // std::lround rounds halves away from zero.
    return {std::max(2, evenDown(int(std::lround(width * scale)))),
            std::max(2, evenDown(int(std::lround(height * scale))))};
}

QFuture<void> ClipEngine::start()
{
    QFuture<void> task = SharedPool::task<void>([this] { arm(); });
    track(task);
    return task;
}

void ClipEngine::arm()
{
    if (m_armed)
        return;
    {
        // A later stop must run a teardown of its own.
        std::scoped_lock lock(m_stopLock);
        m_inflightStop.reset();
        m_ignoringStreamStop = false;
    }
    if (!screenAccessGranted()) {
        ScreenAccessCheck access;
        {
            std::scoped_lock lock(m_stateLock);
            access = m_screenAccess;
        }
        if (access.request)
            access.request();
        throw RecorderError::notReady(access.whyNot ? access.whyNot() : QString());
    }
    // What is kept of the settings is read afresh once per arming; the app's watch on the
    // preferences file covers changes made while armed.
    ClipSettings::reload();
    const bool mic = ClipSettings::captureMic();
    log(QStringLiteral("start() preflight=%1 mode=%2 mic=%3")
            .arg(boolText(screenAccessGranted()), ClipSettings::mode().text(), boolText(mic)));

    auto capture = std::make_shared<Capture>();
    ShareableContent content;
    std::optional<std::pair<int, int>> pointer;
    try {
        capture->service = m_makeService();
        if (!capture->service)
            throw std::runtime_error("no screen capture service");
        content = capture->service->shareableContent();
        pointer = capture->service->pointerLocation();
    } catch (const CaptureNotAllowed &e) {
        // The desktop asked and the answer was no: say so, and how to say yes next time.
        log(QStringLiteral("shareable failed: %1").arg(QString::fromUtf8(e.what())));
        throw RecorderError::notReady(
            (e.cancelled ? QStringLiteral("Screen sharing was cancelled. ")
                         : QStringLiteral("Your desktop did not share the screen. ")) +
            QStringLiteral("Allow Vantrel to share your screen when your desktop asks, then Arm "
                           "again. You only have to allow it once."));
    } catch (const std::exception &e) {
        // The backend's sentence says what is wrong (no display server, one that cannot be
        // reached); starting again, let alone restarting the program, does not change that.
        log(QStringLiteral("shareable failed: %1").arg(QString::fromUtf8(e.what())));
        throw RecorderError::writerFailed(QString::fromUtf8(e.what()));
    }
    log(QStringLiteral("shareable displays=%1").arg(content.displays.size()));

    const std::optional<CaptureDisplay> display = chooseCaptureDisplay(content.displays, pointer);
    if (!display)
        throw RecorderError::noDisplay();

    // Guards against a display that reports no size; then the size is made even.
    int width = display->width > 1 ? display->width : 2;
    int height = std::max(display->height, 2);
    const CaptureQuality quality = ClipSettings::quality();
    const QSize size = captureSize(evenDown(width), evenDown(height), quality.maxSide());
    log(QStringLiteral("capture %1x%2 at %3 fps")
            .arg(size.width())
            .arg(size.height())
            .arg(quality.fps()));

    openEncoder(size.width(), size.height());

    StreamConfiguration config;
    config.width = size.width();
    config.height = size.height();
    config.fps = quality.fps();
    // Three frames in flight: one being encoded on the video queue and two waiting (only the
    // waiting ones hold a capture buffer). With two, a save (which takes a core for a moment)
    // made the capture skip frames.
    config.queueDepth = 3;
    config.showsCursor = true;
    config.capturesAudio = true;
    config.sampleRate = AudioDefaults::sampleRate;
    config.channelCount = AudioDefaults::channels;
    config.captureMicrophone = mic;
    config.soundSource = ClipSettings::soundSource().toStdString();
    config.onNotice = [](const std::string &text) { log(QString::fromStdString(text)); };

    auto recorder = std::make_shared<SessionRecorder>(mic);
    {
        std::scoped_lock lock(m_stateLock);
        m_sessionRecorder = recorder;
    }
    m_buffer.setOnVideoFrame(
        [recorder](const ReplayBuffer::EncodedFrame &frame, const VideoFormatPtr &format) {
            recorder->appendVideo(frame, format);
        });
    m_buffer.setOnAudioPacket(
        [recorder](const ReplayBuffer::AudioPacket &packet) { recorder->appendAudio(packet); });
    m_buffer.setOnMicPacket(
        [recorder](const ReplayBuffer::AudioPacket &packet) { recorder->appendMic(packet); });

    try {
        capture->stream = capture->service->makeStream(*display, config);
        if (!capture->stream)
            throw StreamFailure("the display cannot be captured");
        addOutputs(*capture, mic, config);
    } catch (...) {
        failStart(capture, std::current_exception());
    }
    {
        std::scoped_lock lock(m_stateLock);
        m_capture = capture;
    }
    // Before the stream starts, so that its first samples are taken.
    m_armed = true;

    try {
        StreamStart::within(*capture->stream, m_startLimit.load());
    } catch (...) {
        failStart(capture, std::current_exception());
    }
    log(QStringLiteral("startCapture ok"));
}

void ClipEngine::openEncoder(int width, int height)
{
    closeEncoder();
    m_framesIn = 0;
    m_framesEncoded = 0;
    try {
        // The encoder stores straight into the buffer from the video queue; the queue is drained
        // (Capture::halt) before closeEncoder() lets the buffer be emptied.
        m_encoder = std::make_unique<VideoEncoder>(
            width, height, [this](EncodedFrame frame, VideoFormatPtr keyFormat) {
                ++m_framesEncoded;
                m_buffer.appendVideo(std::move(frame), std::move(keyFormat));
            });
    } catch (const RecorderError &error) {
        log(QStringLiteral("video encoder: %1").arg(error.text()));
        throw;
    }
    log(QStringLiteral("video encoder %1").arg(m_encoder->choice()));
}

void ClipEngine::closeEncoder()
{
    // Frames still inside it are discarded; once it is gone nothing is stored any more.
    m_encoder.reset();
    m_buffer.invalidate();
}

void ClipEngine::addOutputs(Capture &capture, bool mic, const StreamConfiguration &config)
{
    capture.videoQueue = std::make_unique<SerialQueue>("com.quillfen.vantrel.video", "vt-video");
    capture.audioQueue = std::make_unique<SerialQueue>("com.quillfen.vantrel.audio", "vt-audio");
    if (mic)
        capture.micQueue = std::make_unique<SerialQueue>("com.quillfen.vantrel.mic", "vt-mic");

    // The handlers only route: encoding and storing happen in the replay buffer. The screen's
    // handler also keeps an eye on the pace (a still screen still hands on a frame a second).
    const ScreenStream *stream = capture.stream.get();
    auto pace = std::make_shared<PaceWatch>(config.fps);
    const int height = config.height;
    capture.stream->addScreenOutput(*capture.videoQueue,
                                    [this, stream, pace, height](VideoFrame frame) {
                                        if (!m_armed)
                                            return;
                                        watchPace(*pace, *stream, height);
                                        ++m_framesDelivered;
                                        if (frame.status != VideoFrame::Status::complete) {
                                            ++m_framesIdle;
                                            // Without a picture there is nothing to encode; a
                                            // repeated one is encoded.
                                            if (frame.status == VideoFrame::Status::idle)
                                                return;
                                        }
                                        ++m_framesIn;
                                        if (m_keyFrameWanted.load(std::memory_order_relaxed) &&
                                            m_keyFrameWanted.exchange(false))
                                            m_encoder->requestKeyFrame();
                                        m_encoder->encode(std::move(frame));
                                    });
    capture.stream->addAudioOutput(StreamOutputType::audio, *capture.audioQueue,
                                   [this](const AudioSampleBuffer &sample) {
                                       if (m_armed)
                                           m_buffer.appendAudio(sample);
                                   });
    if (mic) {
        capture.stream->addAudioOutput(StreamOutputType::microphone, *capture.micQueue,
                                       [this](const AudioSampleBuffer &sample) {
                                           if (m_armed)
                                               m_buffer.appendMic(sample);
                                       });
    }
    capture.stream->setStopHandler([this](const std::string &error) { streamDidStop(error); });
}

void ClipEngine::watchPace(PaceWatch &watch, const ScreenStream &stream, int height)
{
    const ScreenStream::Stats counts = stream.stats();
    const std::optional<double> held = watch.update(counts, monotonicNanoseconds());
    if (!held)
        return;
    const int fps = watch.fps();
    log(QStringLiteral("capture falling behind: %1 of %2 frames a second held (skipped=%3 "
                       "late=%4); the encoder cannot keep up")
            .arg(*held, 0, 'f', 1)
            .arg(fps)
            .arg(counts.skipped)
            .arg(counts.late));
    FallingBehindCallback callback;
    {
        std::scoped_lock lock(m_stateLock);
        callback = m_onFallingBehind;
    }
    if (callback)
        callback(*held, fps, height);
}

void ClipEngine::failStart(const std::shared_ptr<Capture> &capture, const std::exception_ptr &error)
{
    log(QStringLiteral("startCapture/addOutput failed: %1").arg(textOf(error)));
    m_armed = false;
    capture->halt();
    std::shared_ptr<SessionRecorder> recorder;
    {
        std::scoped_lock lock(m_stateLock);
        if (m_capture == capture)
            m_capture.reset();
        recorder.swap(m_sessionRecorder);
    }
    clearBufferCallbacks();
    if (recorder)
        recorder->finish(false).waitForFinished();
    closeEncoder();
    // The user reads the stream's own sentence ("Could not connect to the audio server: …");
    // under X11 there is no access that a restart could complete, so none is asked for.
    try {
        std::rethrow_exception(error);
    } catch (const RecorderError &) {
        throw;
    } catch (...) {
        throw RecorderError::writerFailed(textOf(error));
    }
}

void ClipEngine::clearBufferCallbacks()
{
    m_buffer.setOnVideoFrame({});
    m_buffer.setOnAudioPacket({});
    m_buffer.setOnMicPacket({});
}

QFuture<SessionOutcome> ClipEngine::stop(bool saveSession)
{
    return beginStop(saveSession, {});
}

QFuture<SessionOutcome> ClipEngine::beginStop(bool saveSession, std::function<void()> afterwards)
{
    std::shared_ptr<StopTask> stop;
    bool isNew = false;
    bool runNow = false;
    {
        std::scoped_lock lock(m_stopLock);
        if (!m_inflightStop) {
            m_inflightStop = std::make_shared<StopTask>();
            m_inflightStop->promise.start();
            m_inflightStop->future = m_inflightStop->promise.future();
            isNew = true;
        }
        stop = m_inflightStop;
        if (afterwards) {
            if (stop->done)
                runNow = true;
            else
                stop->afterwards.push_back(std::move(afterwards));
        }
    }
    if (runNow)
        track(SharedPool::task<void>(std::move(afterwards)));
    if (isNew) {
        track(SharedPool::task<void>([this, stop, saveSession] {
            stop->promise.addResult(performStop(saveSession));
            stop->promise.finish();
            std::vector<std::function<void()>> afterwards;
            {
                std::scoped_lock lock(m_stopLock);
                stop->done = true;
                afterwards.swap(stop->afterwards);
            }
            for (auto &step : afterwards)
                step();
        }));
    }
    return stop->future;
}

SessionOutcome ClipEngine::performStop(bool saveSession)
{
    // From here on samples are dropped, and the stream's own stop callback is ignored.
    m_ignoringStreamStop = true;
    m_armed = false;

    std::shared_ptr<SessionRecorder> recorder;
    {
        std::scoped_lock lock(m_stateLock);
        recorder = m_sessionRecorder;
    }
    SessionOutcome session;
    if (recorder) {
        // The recorder's queue answers; the stream keeps delivering meanwhile, and drops.
        session = recorder->finish(saveSession).result();
        if (session.file && !session.file->shortfall.isComplete())
            log(QStringLiteral("session file %1 is missing %2")
                    .arg(session.file->path, session.file->shortfall.text()));
        if (!session.failure.isEmpty())
            log(QStringLiteral("session file lost: %1").arg(session.failure));
        std::scoped_lock lock(m_stateLock);
        if (m_sessionRecorder == recorder)
            m_sessionRecorder.reset();
    }
    clearBufferCallbacks();
    std::shared_ptr<Capture> capture;
    {
        std::scoped_lock lock(m_stateLock);
        capture.swap(m_capture);
    }
    // Stopping fails quietly at worst; the teardown goes on.
    if (capture)
        capture->halt();
    closeEncoder();
    return session;
}

void ClipEngine::streamDidStop(const std::string &error)
{
    if (m_ignoringStreamStop.exchange(true))
        return;
    const auto failure = std::make_exception_ptr(StreamFailure(error));
    log(QStringLiteral("stream stopped: %1").arg(describe(failure)));
    // This arming's session file is dropped; the owner hears of the stop once it is over.
    beginStop(false, [this, text = QString::fromStdString(error)] {
        StoppedCallback callback;
        {
            std::scoped_lock lock(m_stateLock);
            callback = m_onStopped;
        }
        if (callback)
            callback(text);
    });
}

ScreenStream::Stats ClipEngine::captureStats() const
{
    std::shared_ptr<Capture> capture;
    {
        std::scoped_lock lock(m_stateLock);
        capture = m_capture;
    }
    return capture && capture->stream ? capture->stream->stats() : ScreenStream::Stats {};
}

void ClipEngine::logCaptureCounts(const QString &when) const
{
    const ScreenStream::Stats counts = captureStats();
    if (counts.complete + counts.idle + counts.skipped + counts.late + counts.unchanged == 0)
        return;
    log(QStringLiteral("%1: capture frames=%2 idle=%3 skipped=%4 late=%5 unchanged=%6")
            .arg(when)
            .arg(counts.complete)
            .arg(counts.idle)
            .arg(counts.skipped)
            .arg(counts.late)
            .arg(counts.unchanged));
}

QFuture<WrittenFile> ClipEngine::saveClip()
{
    return saveClip(ClipSettings::maxDuration());
}

QFuture<WrittenFile> ClipEngine::saveClip(double seconds)
{
    return SharedPool::task<WrittenFile>([this, seconds] {
        if (!m_armed)
            throw RecorderError::notArmed();
        log(QString::asprintf("saveClip buffer=%.1fs videos=%d audio=%d",
                              m_buffer.bufferedDuration(), m_buffer.videoCount(),
                              m_buffer.audioCount()));
        // Frames the capture loses while a save runs show as the difference between these two
        // lines: a save must never cost the recording a frame.
        logCaptureCounts(QStringLiteral("save started"));
        // The session file's AAC of this arming, which the clip copies instead of encoding again.
        ClipExport::Options options;
        options.lengthSeconds = seconds;
        options.framesIn = m_framesIn.load();
        options.framesEncoded = m_framesEncoded.load();
        {
            std::scoped_lock lock(m_stateLock);
            if (m_sessionRecorder) {
                options.audioHistory = m_sessionRecorder->audioHistory();
                options.micHistory = m_sessionRecorder->micHistory();
            }
        }
        const bool clear = ClipSettings::clearAfterSave();
        const ReplayBuffer::Snapshot snapshot = m_buffer.snapshot();
        // The frame after the snapshot opens the next clip, so it must be a key frame; asked
        // for now, it is the next one encoded. (If this save fails, the key frame is merely
        // one more.)
        if (clear)
            m_keyFrameWanted = true;
        // Both answer from their own queues, not from the pool.
        WrittenFile clip;
        {
            const auto written =
                qScopeGuard([this] { logCaptureCounts(QStringLiteral("save written")); });
            clip = ClipExport::exportClip(snapshot, options).result();
        }
        if (clear) {
            m_buffer.dropThrough(snapshot);
            log(QStringLiteral("replay cleared after the save"));
        }
        if (!clip.shortfall.isComplete())
            log(QStringLiteral("clip %1 is missing %2").arg(clip.path, clip.shortfall.text()));
        clip.path = ClipFinish::publish(clip.path).result();
        return clip;
    });
}

int64_t ClipEngine::replayBytes(double seconds, bool mic)
{
    // The buffer keeps up to a key-frame interval beyond the length, so that it opens on one.
    const double held = seconds + 2.0;
    const double videoBytesPerSecond = double(VideoEncoder::averageBitRate) / 8;
    const double audioBytesPerSecond =
        double(AudioDefaults::sampleRate) * AudioDefaults::channels * sizeof(float);
    return int64_t(held * (videoBytesPerSecond + audioBytesPerSecond * (mic ? 2 : 1)));
}
