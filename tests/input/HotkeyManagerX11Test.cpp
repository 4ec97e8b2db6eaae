#include "core/ClipSettings.h"
#include "core/LengthKeys.h"
#include "input/ClipHotkey.h"
#include "input/X11HotkeyGrab.h"

#include "input/EvdevRecords.h"
#include "input/HotkeyTestSupport.h"

#include <QDir>
#include <QFile>
#include <QProcess>

#include <csignal>
#include <fcntl.h>
#include <linux/input-event-codes.h>
#include <sys/stat.h>

namespace {

using namespace std::chrono_literals;

void xdotool(const QStringList &arguments)
{
    ASSERT_EQ(QProcess::execute(QStringLiteral("xdotool"), arguments), 0)
        << arguments.join(' ').toStdString();
}

// Every path at once: the X grab and raw events on the private Xvfb, a FIFO for a keyboard
// under /dev/input, and our own window. A "physical" press is an evdev record and an XTest key
// sent together, as a real keyboard reaches both the kernel device and the X server.
class AllPathsTest : public HotkeyManagerTest
{
protected:
    void SetUp() override
    {
        HotkeyManagerTest::SetUp();
        signal(SIGPIPE, SIG_IGN);
        const QByteArray device = useFifoKeyboard();
        manager().registerHotkey();
        manager().setArmed(true);
        ASSERT_EQ(manager().installedPathsText(),
                  QStringLiteral("keyboards, x11 grab, xinput2 raw, window"));
        m_keyboard = ::open(device.constData(), O_WRONLY | O_CLOEXEC);
        ASSERT_GE(m_keyboard, 0);
    }
    void TearDown() override
    {
        HotkeyManagerTest::TearDown();
        if (m_keyboard >= 0)
            ::close(m_keyboard);
    }

    void sendEvdev(uint16_t code, int value)
    {
        const auto bytes = evdevKeyFrame(code, value);
        [[maybe_unused]] ssize_t written = ::write(m_keyboard, bytes.data(), bytes.size());
    }
    // One press of F12 with the given xdotool modifiers ("ctrl+shift+"), on the keyboard and in X.
    void pressF12Everywhere(const QString &xModifiers,
                            std::initializer_list<uint16_t> evdevModifiers)
    {
        for (uint16_t modifier : evdevModifiers)
            sendEvdev(modifier, 1);
        sendEvdev(KEY_F12, 1);
        xdotool({QStringLiteral("key"), xModifiers + QStringLiteral("F12")});
        sendEvdev(KEY_F12, 0);
        for (uint16_t modifier : evdevModifiers)
            sendEvdev(modifier, 0);
    }
    // The count once the paths have had time to deliver every copy of the press.
    int firesAfterPress() { return settledFires(300); }

    int m_keyboard = -1;
};

TEST_F(AllPathsTest, OnePressOnEveryPathIsOneFireAndModifiersMustMatchExactly)
{
    for (int press = 1; press <= 4; ++press) {
        clock.advance(2s);
        pressF12Everywhere({}, {});
        EXPECT_EQ(firesAfterPress(), press);
    }

    // Re-grabbed at once for the new binding, which fires only with exactly its modifiers,
    // NumLock on or off.
    ClipHotkey::save(KEY_F12, ClipHotkey::controlKey | ClipHotkey::shiftKey,
                     QStringLiteral("Ctrl+Shift+F12"));
    clock.advance(2s);
    pressF12Everywhere({}, {});
    pressF12Everywhere(QStringLiteral("ctrl+shift+alt+"),
                       {KEY_LEFTCTRL, KEY_LEFTSHIFT, KEY_LEFTALT});
    pressF12Everywhere(QStringLiteral("ctrl+"), {KEY_LEFTCTRL});
    EXPECT_EQ(firesAfterPress(), 4);
    pressF12Everywhere(QStringLiteral("ctrl+shift+"), {KEY_LEFTCTRL, KEY_RIGHTSHIFT});
    EXPECT_EQ(firesAfterPress(), 5);
    xdotool({"key", "Num_Lock"});
    clock.advance(2s);
    pressF12Everywhere(QStringLiteral("ctrl+shift+"), {KEY_LEFTCTRL, KEY_LEFTSHIFT});
    xdotool({"key", "Num_Lock"});
    EXPECT_EQ(firesAfterPress(), 6);

    // The X paths alone (a key typed only into X, as from another X client's keyboard).
    clock.advance(2s);
    xdotool({"key", "ctrl+shift+F12"});
    EXPECT_EQ(firesAfterPress(), 7);
}

TEST_F(AllPathsTest, CaptureRebindsEveryPathAndUnregisterRemovesThemAll)
{
    KeyWindow window;
    std::vector<bool> results;
    manager().beginCapture([&](bool saved) { results.push_back(saved); });
    // The grab is let go while capturing (so our window could take F12 itself); the raw path and
    // the keyboards still see the old key, and ignore it.
    EXPECT_TRUE(manager().worksInOtherApps());
    pressF12Everywhere({}, {});
    EXPECT_EQ(firesAfterPress(), 0);

    EXPECT_FALSE(window.sendKey(QEvent::KeyPress, KEY_A, Qt::Key_A, Qt::ControlModifier));
    ASSERT_TRUE(spinUntil([&] { return results.size() == 1; }));
    EXPECT_TRUE(results[0]);
    EXPECT_EQ(ClipHotkey::displayName(), QStringLiteral("Ctrl+A"));
    window.sendKey(QEvent::KeyRelease, KEY_A, Qt::Key_A, Qt::ControlModifier);

    // The new key is grabbed at once: another client cannot have it.
    X11HotkeyGrab rival([](const KeyInput &) {}, {});
    ASSERT_EQ(rival.connect(), 0);
    EXPECT_EQ(rival.grab(KEY_A, ClipHotkey::controlKey), 10);
    EXPECT_EQ(rival.grab(KEY_F12, 0), 0) << "the old key was let go";
    rival.ungrab();

    clock.advance(2s);
    pressF12Everywhere({}, {});
    EXPECT_EQ(firesAfterPress(), 0);
    sendEvdev(KEY_LEFTCTRL, 1);
    sendEvdev(KEY_A, 1);
    xdotool({"key", "ctrl+a"});
    sendEvdev(KEY_A, 0);
    sendEvdev(KEY_LEFTCTRL, 0);
    EXPECT_EQ(firesAfterPress(), 1);

    manager().unregister();
    EXPECT_EQ(manager().installedPathsText(), QStringLiteral("none"));
    EXPECT_FALSE(manager().worksInOtherApps());
    EXPECT_EQ(rival.grab(KEY_A, ClipHotkey::controlKey), 0) << "the grab was released";
    rival.ungrab();
    clock.advance(2s);
    manager().setArmed(true);
    manager().unregister();
    sendEvdev(KEY_LEFTCTRL, 1);
    sendEvdev(KEY_A, 1);
    xdotool({"key", "ctrl+a"});
    window.tap(KEY_A, Qt::Key_A, Qt::ControlModifier);
    EXPECT_EQ(firesAfterPress(), 1);
}

// The keys of each length on the X grab alone: each press is one save of its own length, every
// key is ours alone while bound, and a key that changes is grabbed anew at once.
TEST_F(HotkeyManagerTest, EachLengthKeySavesItsLengthThroughTheXGrab)
{
    ClipSettings::setMaxDuration(30);
    LengthKeys::save(15, {KEY_F5, 0, QStringLiteral("F5")});
    LengthKeys::save(30, {KEY_F6, ClipHotkey::controlKey, QStringLiteral("Ctrl+F6")});
    LengthKeys::save(60, {KEY_F7, ClipHotkey::shiftKey, QStringLiteral("Shift+F7")});
    LengthKeys::save(120, {KEY_F8, ClipHotkey::altKey, QStringLiteral("Alt+F8")});
    std::vector<double> saved;
    manager().onSave = [&](double seconds) { saved.push_back(seconds); };
    manager().setEnabledPathsForTesting(unsigned(HotkeyManager::Path::x11Grab));
    manager().registerHotkey();
    manager().setArmed(true);
    ASSERT_EQ(manager().installedPathsText(), QStringLiteral("x11 grab"));

    const std::vector<std::pair<const char *, double>> presses {
        {"F5", 15}, {"ctrl+F6", 30}, {"shift+F7", 60}, {"alt+F8", 120}, {"F12", 30}};
    for (const auto &[key, seconds] : presses) {
        clock.advance(2s);
        const size_t before = saved.size();
        xdotool({QStringLiteral("key"), QLatin1String(key)});
        ASSERT_TRUE(spinUntil([&] { return saved.size() > before; })) << key;
        EXPECT_EQ(saved.back(), seconds) << key;
    }
    // The wrong modifiers are some other key.
    clock.advance(2s);
    xdotool({"key", "F6"});
    xdotool({"key", "ctrl+F7"});
    EXPECT_EQ(settledFires(300), 0);
    EXPECT_EQ(saved.size(), presses.size());

    X11HotkeyGrab rival([](const KeyInput &) {}, {});
    ASSERT_EQ(rival.connect(), 0);
    EXPECT_EQ(rival.grab(KEY_F5, 0), 10);
    EXPECT_EQ(rival.grab(KEY_F8, ClipHotkey::altKey), 10);
    EXPECT_EQ(rival.grab(KEY_F12, 0), 10);

    LengthKeys::save(60, {KEY_F9, 0, QStringLiteral("F9")});
    EXPECT_EQ(rival.grab(KEY_F7, ClipHotkey::shiftKey), 0) << "the old key was let go";
    rival.ungrab();
    EXPECT_EQ(rival.grab(KEY_F9, 0), 10);
    clock.advance(2s);
    xdotool({"key", "F9"});
    ASSERT_TRUE(spinUntil([&] { return saved.size() == presses.size() + 1; }));
    EXPECT_EQ(saved.back(), 60.0);
}

TEST_F(HotkeyManagerTest, AGrabHeldByAnotherClientIsRetriedByThePermissionPoll)
{
    X11HotkeyGrab rival([](const KeyInput &) {}, {});
    ASSERT_EQ(rival.connect(), 0);
    ASSERT_EQ(rival.grab(KEY_F12, 0), 0);
    manager().setEnabledPathsForTesting(unsigned(HotkeyManager::Path::x11Grab) |
                                        unsigned(HotkeyManager::Path::xinputRaw));
    manager().registerHotkey();
    manager().setArmed(true);
    EXPECT_EQ(manager().installedPathsText(), QStringLiteral("xinput2 raw"));
    EXPECT_TRUE(manager().worksInOtherApps());

    rival.ungrab();
    EXPECT_TRUE(
        spinUntil([] { return manager().isPathInstalled(HotkeyManager::Path::x11Grab); }, 2500));
    EXPECT_EQ(rival.grab(KEY_F12, 0), 10) << "ours now";
}

} // namespace
