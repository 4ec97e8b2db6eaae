// The clip key as the desktop's global shortcut, through the real xdg-desktop-portal of the
// wayland fixture and our test backend behind it; and, on a bus whose portal lacks the
// interface, the fall-back and what the user is told.

#include "input/PortalShortcut.h"
#include "core/ClipSettings.h"
#include "core/LengthKeys.h"
#include "input/ClipHotkey.h"
#include "input/HotkeyManager.h"

#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QThread>

#include <chrono>

namespace {

using namespace std::chrono_literals;

template<typename Condition> bool processUntil(Condition condition, std::chrono::milliseconds limit)
{
    const QDeadlineTimer deadline(limit);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(5);
    }
    return true;
}

void processFor(std::chrono::milliseconds span)
{
    processUntil([] { return false; }, span);
}

// What the desktop does when the user presses the bound keys: the backend's Activated and
// Deactivated. Answers how many sessions had the shortcut bound.
int pressOnTheDesktop(const std::string &shortcut = "save-clip")
{
    ChildProcess busctl(
        {"busctl", "--user", "call", "org.freedesktop.impl.portal.desktop.vantreltest",
         "/org/freedesktop/portal/desktop", "org.vantrel.TestShortcuts", "Press", "s", shortcut});
    const std::optional<std::string> answer = busctl.readLine(10s);
    busctl.wait();
    return answer && answer->rfind("u ", 0) == 0 ? std::stoi(answer->substr(2)) : -1;
}

class PortalShortcutTest : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        if (qEnvironmentVariableIsEmpty("VANTREL_WAYLAND_DIR"))
            GTEST_SKIP() << "needs the wayland fixture";
    }
};

} // namespace

TEST(PortalShortcutTrigger, WritesTheBindingInTheXdgShortcutFormat)
{
    EXPECT_EQ(PortalShortcut::preferredTrigger(QStringLiteral("F12")), QStringLiteral("F12"));
    EXPECT_EQ(PortalShortcut::preferredTrigger(QStringLiteral("Ctrl+Shift+F12")),
              QStringLiteral("CTRL+SHIFT+F12"));
    EXPECT_EQ(PortalShortcut::preferredTrigger(QStringLiteral("Super+Alt+R")),
              QStringLiteral("LOGO+ALT+r"));
}

// One press on the desktop is one onPress, however many signals carry it; the manager says the
// key works everywhere and asked for the user's own binding.
TEST_F(PortalShortcutTest, AnActivationIsExactlyOnePress)
{
    ClipHotkey::save(88, ClipHotkey::controlKey | ClipHotkey::shiftKey,
                     QStringLiteral("Ctrl+Shift+F12"));
    HotkeyManager &manager = HotkeyManager::shared();
    manager.setEnabledPathsForTesting(unsigned(HotkeyManager::Path::portalShortcut) |
                                      unsigned(HotkeyManager::Path::window));
    int presses = 0;
    manager.onPress = [&] { ++presses; };
    manager.registerHotkey();
    manager.setArmed(true);
    ASSERT_TRUE(processUntil(
        [&] { return manager.isPathInstalled(HotkeyManager::Path::portalShortcut); }, 10s))
        << manager.installedPathsText().toStdString();
    EXPECT_TRUE(manager.worksInOtherApps());
    EXPECT_TRUE(manager.keyNotice().isEmpty());
    EXPECT_TRUE(manager.installedPathsText().contains(QStringLiteral("portal shortcut")));

    ASSERT_EQ(pressOnTheDesktop(), 1);
    ASSERT_TRUE(processUntil([&] { return presses > 0; }, 5s));
    processFor(300ms);
    EXPECT_EQ(presses, 1);

    // A second press right after is the same press as far as saving goes.
    ASSERT_EQ(pressOnTheDesktop(), 1);
    processFor(500ms);
    EXPECT_EQ(presses, 1);

    // Disarmed, the desktop's presses count for nothing.
    manager.setArmed(false);
    QThread::msleep(1600);
    ASSERT_EQ(pressOnTheDesktop(), 1);
    processFor(500ms);
    EXPECT_EQ(presses, 1);
    manager.unregister();
}

// One shortcut per length that has a key: each saves its length, the clip key the chosen one,
// and a length whose key goes is no longer bound.
TEST_F(PortalShortcutTest, EachLengthKeyIsAShortcutOfItsOwn)
{
    ClipSettings::setMaxDuration(15);
    LengthKeys::save(60, {67, 0, QStringLiteral("F9")});
    LengthKeys::save(120, {68, ClipHotkey::controlKey, QStringLiteral("Ctrl+F10")});
    HotkeyManager &manager = HotkeyManager::shared();
    manager.setEnabledPathsForTesting(unsigned(HotkeyManager::Path::portalShortcut) |
                                      unsigned(HotkeyManager::Path::window));
    // Presses a little apart still fire each (the debounce itself is tested elsewhere).
    manager.setMinIntervalForTesting(300ms);
    std::vector<double> saved;
    manager.onSave = [&](double seconds) { saved.push_back(seconds); };
    manager.registerHotkey();
    manager.setArmed(true);
    ASSERT_TRUE(processUntil(
        [&] { return manager.isPathInstalled(HotkeyManager::Path::portalShortcut); }, 10s));

    for (const auto &[shortcut, seconds] : std::vector<std::pair<std::string, double>> {
             {"save-last-60s", 60}, {"save-last-120s", 120}, {"save-clip", 15}}) {
        const size_t before = saved.size();
        ASSERT_EQ(pressOnTheDesktop(shortcut), 1) << shortcut;
        ASSERT_TRUE(processUntil([&] { return saved.size() > before; }, 5s)) << shortcut;
        EXPECT_EQ(saved.back(), seconds) << shortcut;
        processFor(400ms);
    }
    EXPECT_EQ(pressOnTheDesktop("save-last-30s"), 0) << "no key, no shortcut";

    LengthKeys::clear(120);
    EXPECT_TRUE(processUntil([&] { return pressOnTheDesktop("save-last-120s") == 0; }, 10s));
    EXPECT_TRUE(processUntil(
        [&] { return manager.isPathInstalled(HotkeyManager::Path::portalShortcut); }, 10s));
    ASSERT_EQ(pressOnTheDesktop("save-last-60s"), 1);
    EXPECT_TRUE(processUntil([&] { return saved.size() == 4; }, 5s));
    EXPECT_EQ(saved.back(), 60.0);
    manager.unregister();
}

// The portal without GlobalShortcuts (a bus of our own, the real front end with no backend):
// the manager keeps to its other paths and tells the user what to do.
TEST_F(PortalShortcutTest, WithoutTheInterfaceTheKeyFallsBackAndSaysSo)
{
    const std::string dir = tempFolder().toStdString();
    QDir().mkpath(tempFolder() + QStringLiteral("/portals"));
    const std::string config = dir + "/bus.conf";
    {
        QFile file(QString::fromStdString(config));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QStringLiteral(
                       "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration "
                       "1.0//EN\" \"http://www.freedesktop.org/standards/dbus/1.0/"
                       "busconfig.dtd\"><busconfig><type>session</type><listen>unix:path=%1/"
                       "bus</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow "
                       "send_destination=\"*\"/><allow receive_sender=\"*\"/><allow "
                       "own=\"*\"/></policy></busconfig>")
                       .arg(tempFolder())
                       .toUtf8());
    }
    ChildProcess bus({"dbus-daemon", "--nofork", "--config-file=" + config});
    const std::string address = "unix:path=" + dir + "/bus";
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    ASSERT_TRUE(processUntil(
        [&] {
            return ChildProcess::run({"busctl", "--user", "list"}, {}, 2s) == 0;
        },
        10s));
    ChildProcess portal({"/usr/libexec/xdg-desktop-portal"},
                        {{"XDG_DESKTOP_PORTAL_DIR", dir + "/portals"}});
    ASSERT_TRUE(processUntil(
        [&] {
            return ChildProcess::run(
                       {"busctl", "--user", "status", "org.freedesktop.portal.Desktop"}, {}, 2s) ==
                0;
        },
        10s));

    HotkeyManager &manager = HotkeyManager::shared();
    manager.setEnabledPathsForTesting(unsigned(HotkeyManager::Path::portalShortcut) |
                                      unsigned(HotkeyManager::Path::window));
    manager.registerHotkey();
    manager.setArmed(true);
    processFor(300ms);
    EXPECT_FALSE(manager.isPathInstalled(HotkeyManager::Path::portalShortcut));
    EXPECT_FALSE(manager.worksInOtherApps());
    EXPECT_EQ(manager.installedPathsText(), QStringLiteral("window"));
    EXPECT_FALSE(manager.desktopShortcutDeclined());
    EXPECT_TRUE(manager.desktopLacksShortcuts());
    // The way round it in the words of the desktop the user has.
    EXPECT_EQ(manager.keyNotice(),
              QStringLiteral("This desktop gives apps no shortcuts of their own: bind a key to the "
                             "command vantrel vantrel://clip in its keyboard settings, or add "
                             "yourself to the input group."));
    qputenv("XDG_CURRENT_DESKTOP", "ubuntu:GNOME");
    EXPECT_TRUE(manager.keyNotice().startsWith(
        QStringLiteral("GNOME gives apps shortcuts of their own only from version 48: add one in "
                       "Settings › Keyboard › View and Customize Shortcuts › Custom Shortcuts "
                       "with the command vantrel vantrel://clip")))
        << manager.keyNotice().toStdString();
    manager.unregister();
}
