#pragma once

#include "input/HotkeyManager.h"
#include "support/TestEnvironment.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QKeyEvent>
#include <QWindow>

#include <chrono>
#include <functional>
#include <mutex>
#include <sys/stat.h>

// FIFOs stand in for event devices; this probe takes them (and nothing else) for keyboards.
inline bool isFifo(int fd)
{
    struct stat info;
    return fstat(fd, &info) == 0 && S_ISFIFO(info.st_mode);
}

// Runs the main thread's event loop until `done` holds or the time is up.
inline bool spinUntil(const std::function<bool()> &done, int timeoutMs = 3000)
{
    QElapsedTimer timer;
    timer.start();
    while (!done() && timer.elapsed() < timeoutMs)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 10);
    return done();
}

// Lets the queued work of the moment run (a fire is queued to the main thread).
inline void spinFor(int ms)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < ms)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
}

// A clock the test moves by hand: real time plus an offset, so the manager's debounce can be
// walked through seconds without waiting for them.
class TestClock
{
public:
    std::function<HotkeyManager::Clock::time_point()> function()
    {
        return [this] {
            std::scoped_lock lock(m_mutex);
            return HotkeyManager::Clock::now() + m_offset;
        };
    }
    void advance(std::chrono::duration<double> by)
    {
        std::scoped_lock lock(m_mutex);
        m_offset += std::chrono::duration_cast<HotkeyManager::Clock::duration>(by);
    }

private:
    std::mutex m_mutex;
    HotkeyManager::Clock::duration m_offset {};
};

// A window of ours that records the keys it was given (the ones the filter let through).
class KeyWindow : public QWindow
{
public:
    int delivered = 0;

    // Sends a key as the X11 platform would: evdev code + 8 as the native scan code.
    bool sendKey(QEvent::Type type, uint32_t evdevCode, int qtKey,
                 Qt::KeyboardModifiers modifiers = {}, bool autoRepeat = false,
                 const QString &text = {})
    {
        QKeyEvent event(type, qtKey, modifiers, evdevCode + 8, 0, 0, text, autoRepeat);
        const int before = delivered;
        QCoreApplication::sendEvent(this, &event);
        return delivered > before;
    }
    void tap(uint32_t evdevCode, int qtKey, Qt::KeyboardModifiers modifiers = {})
    {
        sendKey(QEvent::KeyPress, evdevCode, qtKey, modifiers);
        sendKey(QEvent::KeyRelease, evdevCode, qtKey, modifiers);
    }

protected:
    void keyPressEvent(QKeyEvent *) override { ++delivered; }
    void keyReleaseEvent(QKeyEvent *) override { ++delivered; }
};

// Gives each case a fresh home (binding and flags) and a manager that counts its fires. The
// manager is process-wide; every case runs in a process of its own.
class HotkeyManagerTest : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        manager().onPress = [this] { ++fires; };
        manager().setClockForTesting(clock.function());
    }
    void TearDown() override { manager().unregister(); }

    static HotkeyManager &manager() { return HotkeyManager::shared(); }
    // Points the manager's keyboard folder at one FIFO "keyboard" in the test's home; its path.
    QByteArray useFifoKeyboard()
    {
        const QString input = home() + QStringLiteral("/input");
        EXPECT_TRUE(QDir().mkpath(input));
        qputenv("VANTREL_INPUT_DIR", QFile::encodeName(input));
        const QByteArray device = QFile::encodeName(input + QStringLiteral("/event0"));
        EXPECT_EQ(mkfifo(device.constData(), 0600), 0);
        manager().setKeyboardProbeForTesting(isFifo);
        return device;
    }
    // The count after the queued fires of the moment have run.
    int settledFires(int ms = 50)
    {
        spinFor(ms);
        return fires;
    }

    TestClock clock;
    int fires = 0;
};
