#include "engine/ClipEngine.h"

#include "core/Paths.h"
#include "media/RecorderError.h"

#include "support/TestEnvironment.h"

#include <QCoreApplication>
#include <QCoroFuture>
#include <QCoroTask>
#include <QDir>
#include <QThread>
#include <QTimer>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>

namespace {

// A stream whose start never completes: no real server can be made to hang its start, so this
// is the one stand-in the engine's tests use. It remembers the completion so the test can fire
// it late.
struct HangingStart
{
    std::atomic<int> streams {0};
    std::atomic<int> stops {0};
    std::mutex lock;
    ScreenStream::StartCompletion completion;
};

class HangingStream : public ScreenStream
{
public:
    explicit HangingStream(HangingStart &state)
        : m_state(state)
    {
    }
    void addScreenOutput(SerialQueue &, FrameHandler) override { }
    void addAudioOutput(StreamOutputType, SerialQueue &, AudioHandler) override { }
    void setStopHandler(StopHandler) override { }
    void startCapture(StartCompletion completion) override
    {
        std::scoped_lock lock(m_state.lock);
        m_state.completion = std::move(completion);
    }
    void stopCapture() override { ++m_state.stops; }

private:
    HangingStart &m_state;
};

class HangingService : public ScreenCaptureService
{
public:
    explicit HangingService(HangingStart &state)
        : m_state(state)
    {
    }
    ShareableContent shareableContent() override { return {{{7, 0, 0, 1280, 720, true}}}; }
    std::optional<std::pair<int, int>> pointerLocation() override { return std::nullopt; }
    std::unique_ptr<ScreenStream> makeStream(const CaptureDisplay &,
                                             const StreamConfiguration &) override
    {
        ++m_state.streams;
        return std::make_unique<HangingStream>(m_state);
    }

private:
    HangingStart &m_state;
};

using ClipEngineStart = TempHomeTest;

} // namespace

TEST_F(ClipEngineStart, GivesUpWhenTheStreamNeverStarts)
{
    unsetenv("WAYLAND_DISPLAY");
    unsetenv("XDG_SESSION_TYPE");
    HangingStart state;
    ClipEngine engine([&] { return std::make_unique<HangingService>(state); });

    const auto begun = std::chrono::steady_clock::now();
    QFuture<void> start = engine.start();
    try {
        start.waitForFinished();
        FAIL() << "the start succeeded";
    } catch (const RecorderError &e) {
        // Screen access is granted on X11, so the advice is to relaunch.
        EXPECT_EQ(e.kind(), RecorderError::Kind::needsRelaunch);
    }
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(7900));
    EXPECT_FALSE(engine.isArmed());
    EXPECT_EQ(state.streams.load(), 1);
    EXPECT_EQ(state.stops.load(), 1);
    const QString log = readTextFile(Paths::logFile());
    EXPECT_TRUE(log.contains(QStringLiteral("capture 1280x720")));
    EXPECT_TRUE(log.contains(QStringLiteral("startCapture/addOutput failed: ")));
    EXPECT_FALSE(log.contains(QStringLiteral("startCapture ok")));

    // A completion that turns up after the time limit changes nothing.
    ScreenStream::StartCompletion late;
    {
        std::scoped_lock lock(state.lock);
        late = std::move(state.completion);
    }
    ASSERT_TRUE(late);
    late(std::nullopt);
    EXPECT_FALSE(engine.isArmed());
    EXPECT_EQ(engine.stop(true).result(), SessionOutcome());
    EXPECT_TRUE(QDir(Paths::recordings()).isEmpty());
}

// Without a display server there is nothing to list: a message, not a crash, and no arming.
TEST_F(ClipEngineStart, FailsCleanlyWithoutADisplayServer)
{
    setenv("DISPLAY", "no-such-display", 1);
    unsetenv("WAYLAND_DISPLAY");
    unsetenv("XDG_SESSION_TYPE");
    ClipEngine engine;
    try {
        engine.start().waitForFinished();
        FAIL() << "armed without a display server";
    } catch (const RecorderError &e) {
        // Restarting the program would not bring a display, so it is not asked for.
        EXPECT_EQ(e.kind(), RecorderError::Kind::noDisplay);
    }
    EXPECT_FALSE(engine.isArmed());
    EXPECT_TRUE(readTextFile(Paths::logFile()).contains(QStringLiteral("shareable failed: ")));
}

TEST(ClipEngineSizes, CaptureSizeAndErrorText)
{
    EXPECT_EQ(ClipEngine::captureSize(5120, 2880), QSize(1920, 1080));
    EXPECT_EQ(ClipEngine::captureSize(3456, 2234), QSize(1920, 1240));
    EXPECT_EQ(ClipEngine::captureSize(1367, 769), QSize(1366, 768));
    EXPECT_EQ(ClipEngine::captureSize(1080, 2400), QSize(864, 1920));
    EXPECT_EQ(ClipEngine::captureSize(1920, 1080), QSize(1920, 1080));

    EXPECT_EQ(ClipEngine::describe(std::make_exception_ptr(RecorderError::notReady())),
              QStringLiteral("Vantrel needs Screen Recording turned on, then Arm Replay again. "
                             "(Vantrel.RecorderError 2)"));
}

// The owner awaits the engine from the main thread's event loop, which keeps running meanwhile.
TEST_F(ClipEngineStart, IsAwaitedFromTheMainThreadWithoutBlockingIt)
{
    int argc = 1;
    char name[] = "clip_engine_start_tests";
    char *argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    HangingStart state;
    ClipEngine engine([&] { return std::make_unique<HangingService>(state); });

    std::optional<RecorderError::Kind> saveError;
    SessionOutcome stopped {std::nullopt, QStringLiteral("not answered")};
    bool onMainThread = false;
    auto owner = [&]() -> QCoro::Task<> {
        try {
            co_await engine.saveClip();
        } catch (const RecorderError &e) {
            saveError = e.kind();
        }
        stopped = co_await engine.stop();
        onMainThread = QThread::currentThread() == app.thread();
        app.quit();
    };
    auto task = owner();
    // The coroutine is suspended in its first await: control came back before any answer.
    EXPECT_FALSE(saveError.has_value());
    QTimer::singleShot(10000, &app, &QCoreApplication::quit);
    app.exec();

    EXPECT_EQ(saveError, RecorderError::Kind::notArmed);
    EXPECT_EQ(stopped, SessionOutcome());
    EXPECT_TRUE(onMainThread);
}
