#include "input/ClipHotkey.h"

#include "input/EvdevRecords.h"
#include "input/HotkeyTestSupport.h"

#include <QDir>
#include <QFile>

#include <csignal>
#include <fcntl.h>
#include <linux/input-event-codes.h>
#include <sys/stat.h>
#include <thread>

namespace {

using namespace std::chrono_literals;

// Presses through our own window: synchronous, so the debounce table can be walked with the
// test's clock alone.
class WindowDebounceTest : public HotkeyManagerTest
{
protected:
    void SetUp() override
    {
        HotkeyManagerTest::SetUp();
        qputenv("DISPLAY", "");
        manager().setEnabledPathsForTesting(unsigned(HotkeyManager::Path::window));
        manager().registerHotkey();
        manager().setArmed(true);
        ASSERT_EQ(manager().installedPathsText(), QStringLiteral("window"));
        EXPECT_FALSE(manager().worksInOtherApps());
    }
    void press(Qt::KeyboardModifiers modifiers = {}, bool repeat = false)
    {
        window.sendKey(QEvent::KeyPress, KEY_F12, Qt::Key_F12, modifiers, repeat);
    }
    void release() { window.sendKey(QEvent::KeyRelease, KEY_F12, Qt::Key_F12); }

    KeyWindow window;
};

TEST_F(WindowDebounceTest, OneFirePerOneAndAHalfSecondsAndHeldKeysFireOnce)
{
    press();
    release();
    EXPECT_EQ(settledFires(), 1);
    clock.advance(1.0s);
    press();
    release();
    EXPECT_EQ(settledFires(), 1) << "1.0 s after a fire is too soon";

    clock.advance(10s);
    press();
    release();
    clock.advance(1.6s);
    press();
    release();
    EXPECT_EQ(settledFires(), 3) << "1.6 s apart: two fires";

    // Held for five seconds: the auto-repeats never fire, whatever their age.
    clock.advance(10s);
    press();
    for (int i = 0; i < 10; ++i) {
        clock.advance(0.5s);
        press({}, true);
    }
    release();
    EXPECT_EQ(settledFires(), 4);

    // A release that never came: the held flag blocks a press 2 s later, not one 3.1 s later.
    clock.advance(10s);
    press();
    clock.advance(2s);
    press();
    EXPECT_EQ(settledFires(), 5);
    clock.advance(1.1s);
    press();
    release();
    EXPECT_EQ(settledFires(), 6);

    // Disarming while held clears the held flag: the next press, 2 s later, fires.
    clock.advance(10s);
    press();
    manager().setArmed(false);
    clock.advance(1s);
    press();
    EXPECT_EQ(settledFires(), 7) << "disarmed presses never fire";
    manager().setArmed(true);
    clock.advance(1s);
    press();
    release();
    EXPECT_EQ(settledFires(), 8);
}

TEST_F(WindowDebounceTest, VolumeKeysBlockWhileDownAndModifiersMustMatchExactly)
{
    window.sendKey(QEvent::KeyPress, KEY_VOLUMEUP, Qt::Key_VolumeUp);
    press();
    release();
    EXPECT_EQ(settledFires(), 0) << "a volume key is down";
    window.sendKey(QEvent::KeyRelease, KEY_VOLUMEUP, Qt::Key_VolumeUp);
    press();
    release();
    EXPECT_EQ(settledFires(), 1);

    // The volume keys themselves can never be the clip key.
    ClipHotkey::save(KEY_MUTE, 0, QStringLiteral("Mute"));
    clock.advance(5s);
    window.tap(KEY_MUTE, Qt::Key_VolumeMute);
    EXPECT_EQ(settledFires(), 1);

    ClipHotkey::save(KEY_F12, ClipHotkey::controlKey | ClipHotkey::shiftKey,
                     QStringLiteral("Ctrl+Shift+F12"));
    const auto ctrlShift = Qt::ControlModifier | Qt::ShiftModifier;
    for (Qt::KeyboardModifiers wrong :
         {Qt::KeyboardModifiers(), Qt::KeyboardModifiers(Qt::ControlModifier),
          ctrlShift | Qt::AltModifier, ctrlShift | Qt::MetaModifier}) {
        clock.advance(5s);
        press(wrong);
        release();
    }
    EXPECT_EQ(settledFires(), 1);
    clock.advance(5s);
    // The keypad flag is not a modifier of the binding.
    press(ctrlShift | Qt::KeypadModifier);
    release();
    EXPECT_EQ(settledFires(), 2);
}

TEST_F(WindowDebounceTest, CaptureBindsTheNextKeyAndLetsQuitVolumeAndModifiersThrough)
{
    std::vector<bool> results;
    const auto handler = [&](bool saved) { results.push_back(saved); };

    // Esc cancels and leaves the binding alone.
    manager().beginCapture(handler);
    EXPECT_TRUE(manager().isCapturing());
    EXPECT_FALSE(window.sendKey(QEvent::KeyPress, KEY_ESC, Qt::Key_Escape)) << "Esc is swallowed";
    spinUntil([&] { return !results.empty(); });
    EXPECT_EQ(results, std::vector<bool> {false});
    EXPECT_FALSE(manager().isCapturing());
    EXPECT_EQ(ClipHotkey::displayName(), QStringLiteral("F12"));

    manager().beginCapture(handler);
    EXPECT_TRUE(window.sendKey(QEvent::KeyPress, KEY_Q, Qt::Key_Q, Qt::ControlModifier))
        << "Ctrl+Q still quits";
    EXPECT_TRUE(window.sendKey(QEvent::KeyPress, KEY_VOLUMEDOWN, Qt::Key_VolumeDown));
    window.sendKey(QEvent::KeyRelease, KEY_VOLUMEDOWN, Qt::Key_VolumeDown);
    // Ctrl alone is the start of a combination, not the new clip key; the shortcut system does
    // not get to eat the combination either.
    EXPECT_TRUE(window.sendKey(QEvent::KeyPress, KEY_LEFTCTRL, Qt::Key_Control));
    QKeyEvent shortcut(QEvent::ShortcutOverride, Qt::Key_A, Qt::ControlModifier, KEY_A + 8, 0, 0);
    shortcut.ignore();
    QCoreApplication::sendEvent(&window, &shortcut);
    EXPECT_TRUE(shortcut.isAccepted());
    EXPECT_TRUE(manager().isCapturing());
    EXPECT_FALSE(window.sendKey(QEvent::KeyPress, KEY_A, Qt::Key_A, Qt::ControlModifier, false,
                                QStringLiteral("\x01")));
    spinUntil([&] { return results.size() == 2; });
    EXPECT_EQ(results, (std::vector<bool> {false, true}));
    EXPECT_EQ(ClipHotkey::keyCode(), uint32_t(KEY_A));
    EXPECT_EQ(ClipHotkey::modifiers(), ClipHotkey::controlKey);
    EXPECT_EQ(ClipHotkey::displayName(), QStringLiteral("Ctrl+A"));
    window.sendKey(QEvent::KeyRelease, KEY_A, Qt::Key_A, Qt::ControlModifier);

    // Cancelling calls no handler.
    manager().beginCapture(handler);
    manager().cancelCapture();
    EXPECT_FALSE(manager().isCapturing());
    spinFor(50);
    EXPECT_EQ(results.size(), 2u);
}

// FIFOs standing in for keyboards; no display at all.

TEST_F(HotkeyManagerTest, WithoutADisplayTheKeyboardsCarryTheClipKey)
{
    qputenv("DISPLAY", "");
    const QByteArray device = useFifoKeyboard();

    bool becameGlobal = false;
    manager().onBecameGlobal = [&] { becameGlobal = true; };
    manager().registerHotkey();
    EXPECT_EQ(manager().installedPathsText(), QStringLiteral("keyboards, window"));
    EXPECT_TRUE(manager().worksInOtherApps());
    EXPECT_TRUE(spinUntil([&] { return becameGlobal; }));
    manager().setArmed(true);

    const int fd = ::open(device.constData(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    const auto send = [&](uint16_t code, int value) {
        const auto bytes = evdevKeyFrame(code, value);
        ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), ssize_t(bytes.size()));
    };
    send(KEY_F12, 1);
    send(KEY_F12, 0);
    EXPECT_TRUE(spinUntil([&] { return fires == 1; }));

    // Volume held on the keyboard blocks; auto-repeat never fires.
    clock.advance(5s);
    send(KEY_VOLUMEUP, 1);
    send(KEY_F12, 1);
    send(KEY_F12, 0);
    send(KEY_VOLUMEUP, 0);
    send(KEY_F12, 1);
    send(KEY_F12, 2);
    EXPECT_TRUE(spinUntil([&] { return fires == 2; }));
    clock.advance(5s);
    send(KEY_F12, 2);
    send(KEY_F12, 0);

    // After unregister nothing fires, and the reader has let go of the device.
    manager().unregister();
    EXPECT_FALSE(manager().worksInOtherApps());
    EXPECT_EQ(manager().installedPathsText(), QStringLiteral("none"));
    clock.advance(5s);
    const auto bytes = evdevKeyFrame(KEY_F12, 1);
    // The reading end is closed: the write fails instead of reaching anyone.
    signal(SIGPIPE, SIG_IGN);
    EXPECT_LT(::write(fd, bytes.data(), bytes.size()), 0);
    EXPECT_EQ(settledFires(100), 2);
    ::close(fd);
}

} // namespace
