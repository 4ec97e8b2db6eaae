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
