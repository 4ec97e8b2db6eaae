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
    engine.setStartLimit(std::chrono::milliseconds(300));

    const auto begun = std::chrono::steady_clock::now();
    QFuture<void> start = engine.start();
    try {
        start.waitForFinished();
        FAIL() << "the start succeeded";
    } catch (const RecorderError &e) {
        // What happened, not a relaunch: under X11 there is no access a restart could complete.
        EXPECT_EQ(e.kind(), RecorderError::Kind::writerFailed);
        EXPECT_EQ(e.text(), QStringLiteral("The screen capture did not start within 0.3 seconds."));
    }
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(290));
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

// A start that cannot begin says what stands in its way, and arms nothing: no screen access (the
// one-time notice goes out), no display server to list displays from.
TEST_F(ClipEngineStart, SaysWhatStandsInTheWayAndArmsNothing)
{
    const auto failure = [](ClipEngine &engine) {
        try {
            engine.start().waitForFinished();
        } catch (const RecorderError &e) {
            return std::pair {e.kind(), e.text()};
        }
        return std::pair {RecorderError::Kind::writerFailed, QStringLiteral("(armed)")};
    };
    unsetenv("WAYLAND_DISPLAY");
    unsetenv("XDG_SESSION_TYPE");
    {
        HangingStart state;
        ClipEngine engine([&] { return std::make_unique<HangingService>(state); });
        int requests = 0;
        engine.setScreenAccess(
            {[] { return false; }, [&] { ++requests; },
             [] { return QStringLiteral("What is missing, and how to get it."); }});
        EXPECT_EQ(failure(engine),
                  std::pair(RecorderError::Kind::notReady,
                            QStringLiteral("What is missing, and how to get it.")));
        EXPECT_EQ(requests, 1);
        EXPECT_EQ(state.streams.load(), 0);
        EXPECT_FALSE(engine.isArmed());
    }
    setenv("DISPLAY", "no-such-display", 1);
    ClipEngine engine;
    EXPECT_EQ(failure(engine),
              std::pair(RecorderError::Kind::writerFailed,
                        QStringLiteral("Could not open the X display \"no-such-display\": no X "
                                       "server answers there.")));
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
              QStringLiteral("Vantrel may not record the screen yet. Allow it to share your screen "
                             "when your desktop asks, then Arm again. (Vantrel.RecorderError 2)"));
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
    engine.setStartLimit(std::chrono::milliseconds(300));

    std::optional<RecorderError::Kind> startError;
    std::optional<RecorderError::Kind> saveError;
    SessionOutcome stopped {std::nullopt, QStringLiteral("not answered")};
    bool onMainThread = false;
    auto owner = [&]() -> QCoro::Task<> {
        try {
            co_await engine.start(); // the stream never starts: answered at the limit
        } catch (const RecorderError &e) {
            startError = e.kind();
        }
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
    EXPECT_FALSE(startError.has_value());
    QTimer::singleShot(10000, &app, &QCoreApplication::quit);
    app.exec();

    EXPECT_EQ(startError, RecorderError::Kind::writerFailed);
    EXPECT_EQ(saveError, RecorderError::Kind::notArmed);
    EXPECT_EQ(stopped, SessionOutcome());
    EXPECT_TRUE(onMainThread);
}
