#include "input/ClipHotkey.h"
#include "input/X11HotkeyGrab.h"
#include "input/XInputKeyMonitor.h"

#include "input/HotkeyTestSupport.h"

#include <QProcess>

#include <linux/input-event-codes.h>

namespace {

using Action = KeyInput::Action;

// Keys typed through XTest, as a user's keyboard would type them into the X server.
void xdotool(const QStringList &arguments)
{
    ASSERT_EQ(QProcess::execute(QStringLiteral("xdotool"), arguments), 0)
        << arguments.join(' ').toStdString();
}

struct KeyLog
{
    auto sink()
    {
        return [this](const KeyInput &key) { keys.push_back(key); };
    }
    size_t count(uint32_t code, Action action) const
    {
        return size_t(std::count_if(keys.begin(), keys.end(), [&](const KeyInput &key) {
            return key.keyCode == code && key.action == action;
        }));
    }
    std::vector<KeyInput> keys;
};

constexpr uint32_t kCtrlShift = ClipHotkey::controlKey | ClipHotkey::shiftKey;

TEST(X11HotkeyPaths, GrabTakesExactlyTheBoundCombinationWithOrWithoutLocks)
{
    KeyLog log;
    X11HotkeyGrab grab(log.sink(), {});
    ASSERT_EQ(grab.connect(), 0);
    ASSERT_EQ(grab.grab(KEY_F12, kCtrlShift), 0);
    EXPECT_TRUE(grab.isGrabbed());

    // Another client holding the key: refused, logged by the caller, nothing half-grabbed; the
    // retry succeeds once the key is free.
    KeyLog rivalLog;
    X11HotkeyGrab rival(rivalLog.sink(), {});
    ASSERT_EQ(rival.connect(), 0);
    EXPECT_EQ(rival.grab(KEY_F12, kCtrlShift), 10);
    EXPECT_FALSE(rival.isGrabbed());
    // A code X cannot name is refused without asking the server.
    EXPECT_EQ(rival.grab(300, 0), 2);

    xdotool({"key", "F12", "ctrl+shift+alt+F12", "ctrl+F12", "ctrl+shift+F12"});
    ASSERT_TRUE(spinUntil([&] { return log.count(KEY_F12, Action::release) == 1; }));
    // While the grab is active the server sends this connection the other keys' releases too.
    EXPECT_EQ(log.count(KEY_F12, Action::press), 1u) << "only the exact combination is taken";
    EXPECT_EQ(log.keys[0].keyCode, uint32_t(KEY_F12));
    EXPECT_EQ(log.keys[0].modifiers, kCtrlShift);

    for (const char *lock : {"Num_Lock", "Caps_Lock"}) {
        xdotool({"key", lock});
        xdotool({"key", "ctrl+shift+F12"});
        xdotool({"key", lock});
    }
    ASSERT_TRUE(spinUntil([&] { return log.count(KEY_F12, Action::press) == 3; }));
    for (const KeyInput &key : log.keys) {
        if (key.keyCode == KEY_F12 && key.action == Action::press) {
            EXPECT_EQ(key.modifiers, kCtrlShift) << "locks are not binding modifiers";
        }
    }

    grab.ungrab();
    EXPECT_FALSE(grab.isGrabbed());
    EXPECT_EQ(rival.grab(KEY_F12, kCtrlShift), 0);
    xdotool({"key", "ctrl+shift+F12"});
    EXPECT_TRUE(spinUntil([&] { return rivalLog.count(KEY_F12, Action::press) == 1; }));
    EXPECT_EQ(log.count(KEY_F12, Action::press), 3u);
}

TEST(X11HotkeyPaths, RawEventsSeeEveryKeyWithModifiersAndRepeatsEvenWhileGrabbed)
{
    KeyLog raw;
    XInputKeyMonitor monitor(raw.sink(), {});
    ASSERT_TRUE(monitor.install());
    KeyLog grabbed;
    X11HotkeyGrab grab(grabbed.sink(), {});
    ASSERT_EQ(grab.connect(), 0);
    ASSERT_EQ(grab.grab(KEY_F12, 0), 0);

    xdotool({"key", "ctrl+shift+F12", "F12"});
    ASSERT_TRUE(spinUntil([&] { return raw.count(KEY_F12, Action::release) == 2; }));
    std::vector<uint32_t> f12Modifiers;
    for (const KeyInput &key : raw.keys)
        if (key.keyCode == KEY_F12 && key.action == Action::press)
            f12Modifiers.push_back(key.modifiers);
    EXPECT_EQ(f12Modifiers, (std::vector<uint32_t> {kCtrlShift, 0}));
    EXPECT_EQ(raw.count(KEY_LEFTCTRL, Action::press), 1u);
    ASSERT_TRUE(spinUntil([&] { return grabbed.count(KEY_F12, Action::release) == 1; }));

    // Held past the auto-repeat delay: one press on each path, the rest are repeats.
    xdotool({"keydown", "F12", "sleep", "1.2", "keyup", "F12"});
    ASSERT_TRUE(spinUntil([&] { return raw.count(KEY_F12, Action::release) == 3; }));
    ASSERT_TRUE(spinUntil([&] { return grabbed.count(KEY_F12, Action::release) == 2; }));
    EXPECT_EQ(raw.count(KEY_F12, Action::press), 3u);
    EXPECT_EQ(grabbed.count(KEY_F12, Action::press), 2u);
    // The server repeats the grabbed key as presses without releases (detectable auto-repeat);
    // without it every repeat would look like a new press. Raw events carry no repeats at all.
    EXPECT_GT(grabbed.count(KEY_F12, Action::repeat), 0u);

    monitor.remove();
    EXPECT_FALSE(monitor.isInstalled());
    xdotool({"key", "F11"});
    spinFor(100);
    EXPECT_EQ(raw.count(KEY_F11, Action::press), 0u);
}

TEST(X11HotkeyPaths, WithoutAnXServerNothingInstallsAndNothingCrashes)
{
    qputenv("DISPLAY", ":999");
    KeyLog log;
    XInputKeyMonitor monitor(log.sink(), {});
    EXPECT_FALSE(monitor.install());
    X11HotkeyGrab grab(log.sink(), {});
    EXPECT_NE(grab.connect(), 0);
    EXPECT_EQ(grab.grab(KEY_F12, 0), -1);
    qputenv("DISPLAY", "");
    EXPECT_FALSE(monitor.install());
}

} // namespace
