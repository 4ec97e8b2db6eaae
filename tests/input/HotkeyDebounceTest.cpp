#include "core/ClipSettings.h"
#include "core/LengthKeys.h"
#include "input/ClipHotkey.h"

#include "input/EvdevRecords.h"
#include "input/HotkeyTestSupport.h"

#include <QDir>
#include <QFile>

#include <csignal>
#include <fcntl.h>
#include <linux/input-event-codes.h>
#include <sys/ioctl.h>
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

// The clip key and the keys of each length share one debounce; each says which length to save.
TEST_F(WindowDebounceTest, LengthKeysShareTheDebounceAndSaveTheirOwnLength)
{
    std::vector<double> saved;
    manager().onSave = [&](double seconds) { saved.push_back(seconds); };
    ClipSettings::setMaxDuration(60);
    LengthKeys::save(15, {KEY_F9, 0, QStringLiteral("F9")});
    LengthKeys::save(30, {KEY_F10, 0, QStringLiteral("F10")});
    LengthKeys::save(120, {KEY_F9, ClipHotkey::controlKey, QStringLiteral("Ctrl+F9")});
    const auto tap = [&](uint32_t code, int qtKey, Qt::KeyboardModifiers modifiers = {}) {
        window.tap(code, qtKey, modifiers);
        spinFor(20);
    };

    tap(KEY_F9, Qt::Key_F9);
    clock.advance(1.0s);
    tap(KEY_F12, Qt::Key_F12); // too soon after any fire
    clock.advance(0.6s);
    tap(KEY_F12, Qt::Key_F12); // the clip key saves the chosen length
    clock.advance(2s);
    tap(KEY_F9, Qt::Key_F9, Qt::ControlModifier);
    EXPECT_EQ(saved, (std::vector<double> {15, 60, 120}));

    // A key held down (its release lost) holds back only itself.
    clock.advance(2s);
    window.sendKey(QEvent::KeyPress, KEY_F9, Qt::Key_F9);
    clock.advance(2s);
    window.sendKey(QEvent::KeyPress, KEY_F9, Qt::Key_F9);
    tap(KEY_F10, Qt::Key_F10);
    EXPECT_EQ(saved, (std::vector<double> {15, 60, 120, 15, 30}));
    window.sendKey(QEvent::KeyRelease, KEY_F9, Qt::Key_F9);

    // Capturing a length's key: the clip key is refused, a key of another length moves over.
    std::vector<HotkeyManager::LengthCapture> outcomes;
    const auto handler = [&](HotkeyManager::LengthCapture outcome) { outcomes.push_back(outcome); };
    manager().beginLengthCapture(30, handler);
    EXPECT_EQ(manager().captureLength(), 30);
    window.sendKey(QEvent::KeyPress, KEY_F12, Qt::Key_F12);
    ASSERT_TRUE(spinUntil([&] { return outcomes.size() == 1; }));
    EXPECT_EQ(outcomes[0], HotkeyManager::LengthCapture::clipKey);
    EXPECT_EQ(LengthKeys::binding(30)->keyCode, uint32_t(KEY_F10));
    manager().beginLengthCapture(30, handler);
    window.sendKey(QEvent::KeyPress, KEY_F9, Qt::Key_F9, {}, false, QStringLiteral("F9"));
    ASSERT_TRUE(spinUntil([&] { return outcomes.size() == 2; }));
    EXPECT_EQ(outcomes[1], HotkeyManager::LengthCapture::saved);
    EXPECT_EQ(LengthKeys::binding(30)->displayName, QStringLiteral("F9"));
    EXPECT_FALSE(LengthKeys::binding(15).has_value());
    window.sendKey(QEvent::KeyRelease, KEY_F9, Qt::Key_F9);
    manager().beginLengthCapture(60, handler);
    window.sendKey(QEvent::KeyPress, KEY_ESC, Qt::Key_Escape);
    ASSERT_TRUE(spinUntil([&] { return outcomes.size() == 3; }));
    EXPECT_EQ(outcomes[2], HotkeyManager::LengthCapture::cancelled);
    EXPECT_FALSE(LengthKeys::binding(60).has_value());
    clock.advance(2s);
    tap(KEY_F9, Qt::Key_F9);
    EXPECT_EQ(saved.back(), 30.0);

    // The clip key taken from a length: that length loses it.
    std::vector<bool> results;
    manager().beginCapture([&](bool done) { results.push_back(done); });
    window.sendKey(QEvent::KeyPress, KEY_F9, Qt::Key_F9, Qt::ControlModifier);
    ASSERT_TRUE(spinUntil([&] { return results.size() == 1; }));
    EXPECT_EQ(ClipHotkey::displayName(), QStringLiteral("Ctrl+F9"));
    EXPECT_FALSE(LengthKeys::binding(120).has_value());
    window.sendKey(QEvent::KeyRelease, KEY_F9, Qt::Key_F9, Qt::ControlModifier);

    // A shell that only knows the clip key hears only the clip key.
    manager().onSave = nullptr;
    clock.advance(2s);
    tap(KEY_F9, Qt::Key_F9);
    EXPECT_EQ(fires, 0);
    clock.advance(2s);
    tap(KEY_F9, Qt::Key_F9, Qt::ControlModifier);
    EXPECT_EQ(fires, 1);
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

// Our window ends a capture, and the keyboards (like the X paths) deliver their copy of that press
// later, when the key is bound: neither the copy, its repeat nor its release saves anything.
TEST_F(HotkeyManagerTest, TheKeyThatEndsACaptureSavesNothingOnAnyPath)
{
    qputenv("DISPLAY", "");
    const QByteArray device = useFifoKeyboard();
    std::vector<double> saved;
    manager().onSave = [&](double seconds) { saved.push_back(seconds); };
    ClipSettings::setMaxDuration(60);
    manager().registerHotkey();
    manager().setArmed(true);
    ASSERT_EQ(manager().installedPathsText(), QStringLiteral("keyboards, window"));
    KeyWindow window;
    const int fd = ::open(device.constData(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    const auto send = [&](uint16_t code, int value) {
        const auto bytes = evdevKeyFrame(code, value);
        ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), ssize_t(bytes.size()));
    };
    // Every key written has been read (the FIFO is empty) and handled.
    const auto handled = [&] {
        const bool drained = spinUntil([&] {
            int unread = -1;
            return ::ioctl(fd, FIONREAD, &unread) == 0 && unread == 0;
        });
        spinFor(50);
        return drained;
    };
    std::vector<HotkeyManager::LengthCapture> outcomes;
    const auto handler = [&](HotkeyManager::LengthCapture outcome) { outcomes.push_back(outcome); };

    // While capturing, the clip key on a keyboard saves nothing.
    manager().beginLengthCapture(30, handler);
    send(KEY_F12, 1);
    send(KEY_F12, 0);
    send(KEY_LEFTCTRL, 1);
    ASSERT_TRUE(handled());
    window.sendKey(QEvent::KeyPress, KEY_F7, Qt::Key_F7, Qt::ControlModifier);
    ASSERT_TRUE(spinUntil([&] { return outcomes.size() == 1; }));
    EXPECT_EQ(outcomes[0], HotkeyManager::LengthCapture::saved);
    send(KEY_F7, 1);
    send(KEY_F7, 2);
    send(KEY_F7, 0);
    send(KEY_LEFTCTRL, 0);
    window.sendKey(QEvent::KeyRelease, KEY_F7, Qt::Key_F7, Qt::ControlModifier);
    ASSERT_TRUE(handled());

    // The clip key refused for a length ends the capture too, and its copy saves nothing.
    manager().beginLengthCapture(60, handler);
    window.sendKey(QEvent::KeyPress, KEY_F12, Qt::Key_F12);
    ASSERT_TRUE(spinUntil([&] { return outcomes.size() == 2; }));
    EXPECT_EQ(outcomes[1], HotkeyManager::LengthCapture::clipKey);
    send(KEY_F12, 1);
    send(KEY_F12, 0);
    window.sendKey(QEvent::KeyRelease, KEY_F12, Qt::Key_F12);

    // Handled before the clock moves on, or a copy would look like a press of its own.
    ASSERT_TRUE(handled());
    EXPECT_TRUE(saved.empty());

    // A later press of the key just bound saves its length.
    clock.advance(2s);
    send(KEY_LEFTCTRL, 1);
    send(KEY_F7, 1);
    send(KEY_F7, 0);
    send(KEY_LEFTCTRL, 0);
    EXPECT_TRUE(spinUntil([&] { return !saved.empty(); }));
    EXPECT_EQ(saved, std::vector<double> {30});
    ::close(fd);
}
} // namespace
