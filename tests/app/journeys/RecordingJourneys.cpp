// Journeys of recording: arming and stopping, the clip key's save into the Library and Home, the
// clip lengths, a new clip key, and the microphone and login switches with what they leave on
// disk.

#include "Journey.h"

#include "app/AppModel.h"
#include "app/AutostartEntry.h"
#include "app/ClipRow.h"
#include "app/TrayIcon.h"
#include "core/Preferences.h"
#include "engine/ClipEngine.h"

#include "support/WidgetTesting.h"

#include <QDir>
#include <QFile>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QSystemTrayIcon>

using namespace std::chrono_literals;

namespace {

QStringList filesIn(const QString &folder, const QString &pattern)
{
    return QDir(folder).entryList({pattern}, QDir::Files);
}

} // namespace

TEST_F(Journey, ArmThenStopKeepsTheSession)
{
    launch();
    EXPECT_EQ(find<QLabel>(QStringLiteral("statePill"))->text(), QStringLiteral("Idle"));
    click(QStringLiteral("arm"));
    ASSERT_TRUE(waitForStatus(QStringLiteral("Recording. F12 saves the last 15 seconds from any "
                                             "app."),
                              30s))
        << statuses().join(QLatin1Char('|')).toStdString();
    EXPECT_EQ(find<QLabel>(QStringLiteral("statePill"))->text(), QStringLiteral("Recording"));
    EXPECT_EQ(find<QPushButton>(QStringLiteral("arm"))->text(), QStringLiteral("Stop"));
    EXPECT_TRUE(shell().tray()->icon()->isVisible()) << "the tray of the desktop shows it";

    ASSERT_TRUE(waitFor([&] { return shell().engine().bufferedDuration() >= 1; }, 20s));
    click(QStringLiteral("arm"));
    ASSERT_TRUE(waitForStatus(QStringLiteral("Saved Session "), 20s, true))
        << statuses().join(QLatin1Char('|')).toStdString();
    EXPECT_EQ(find<QLabel>(QStringLiteral("statePill"))->text(), QStringLiteral("Idle"));
    EXPECT_EQ(find<QPushButton>(QStringLiteral("arm"))->text(), QStringLiteral("Arm"));
    EXPECT_EQ(filesIn(recordings(), QStringLiteral("Session *.mp4")).size(), 1);
    EXPECT_FALSE(Preferences::open()->value(QStringLiteral("keepRunning")).toBool())
        << "a stop by the user is not re-armed at the next launch";
}

TEST_F(Journey, TheClipKeySavesIntoTheLibraryAndHome)
{
    writeSettings("clipLengthSeconds=15\narmOnLaunch=true\n");
    launch();
    ASSERT_TRUE(waitFor([&] { return shell().engine().bufferedDuration() >= 2; }, 30s))
        << shell().model().status().toStdString();
    press(QStringLiteral("F12"));
    ASSERT_TRUE(waitForStatus(QStringLiteral("Saved. Sign in to share a link."), 30s))
        << statuses().join(QLatin1Char('|')).toStdString();
    const QStringList clips = filesIn(recordings(), QStringLiteral("Clip *.mp4"));
    ASSERT_EQ(clips.size(), 1);
    EXPECT_TRUE(statuses().contains(QStringLiteral("Saved %1.").arg(clips[0])));

    // The save shows the Library, with the clip and the outcome on the page itself.
    EXPECT_EQ(shell().model().tab(), AppModel::Tab::library);
    EXPECT_TRUE(waitForVisible(QStringLiteral("clipRow:") + clips[0]));
    EXPECT_EQ(find<QLabel>(QStringLiteral("clipCount"))->text(),
              QStringLiteral("1 clip · full quality"));
    EXPECT_EQ(find<QLabel>(QStringLiteral("libraryStatus"))->text(),
              QStringLiteral("Saved. Sign in to share a link."));
    click(QStringLiteral("tabHome"));
    EXPECT_TRUE(waitForVisible(QStringLiteral("clipRow:") + clips[0])) << "Home's latest clip";
}

TEST_F(Journey, ClipLengthsChangeTheSaveAndAreKept)
{
    launch();
    EXPECT_EQ(find<QPushButton>(QStringLiteral("save"))->text(), QStringLiteral("Save last 15s"));
    for (const int seconds : {60, 120, 30}) {
        click(QStringLiteral("length%1").arg(seconds));
        EXPECT_EQ(find<QPushButton>(QStringLiteral("save"))->text(),
                  QStringLiteral("Save last %1s").arg(seconds));
        EXPECT_EQ(Preferences::open()->value(QStringLiteral("clipLengthSeconds")).toInt(), seconds);
    }
    click(QStringLiteral("arm"));
    ASSERT_TRUE(waitForStatus(QStringLiteral("Recording. F12 saves the last 30 seconds from any "
                                             "app."),
                              30s))
        << statuses().join(QLatin1Char('|')).toStdString();
}

TEST_F(Journey, ChangeKeyBindsTheNextKeyWhichThenSaves)
{
    writeSettings("clipLengthSeconds=15\narmOnLaunch=true\n");
    launch();
    click(QStringLiteral("tabSettings"));
    click(QStringLiteral("changeKey"));
    EXPECT_EQ(find<QLabel>(QStringLiteral("keyChip"))->text(), QStringLiteral("Press a key…"));
    EXPECT_EQ(find<QPushButton>(QStringLiteral("changeKey"))->text(), QStringLiteral("Cancel"));
    EXPECT_EQ(find<QLabel>(QStringLiteral("settingsStatus"))->text(),
              QStringLiteral("Press the new clip key. Esc cancels."));
    press(QStringLiteral("ctrl+F9"));
    ASSERT_TRUE(waitForStatus(QStringLiteral("Clip key is Ctrl+F9."), 10s))
        << statuses().join(QLatin1Char('|')).toStdString();
    EXPECT_EQ(find<QLabel>(QStringLiteral("keyChip"))->text(), QStringLiteral("Ctrl+F9"));
    EXPECT_EQ(find<QPushButton>(QStringLiteral("changeKey"))->text(), QStringLiteral("Change"));
    EXPECT_EQ(shell().tray()->menu()->actions()[2]->text(), QStringLiteral("Save Clip  Ctrl+F9"));

    ASSERT_TRUE(waitFor([&] { return shell().engine().bufferedDuration() >= 2; }, 30s));
    press(QStringLiteral("F12"));
    EXPECT_FALSE(waitForStatus(QStringLiteral("Saving clip…"), 500ms)) << "the old key is let go";
    press(QStringLiteral("ctrl+F9"));
    ASSERT_TRUE(waitForStatus(QStringLiteral("Saved. Sign in to share a link."), 30s))
        << statuses().join(QLatin1Char('|')).toStdString();
    EXPECT_EQ(filesIn(recordings(), QStringLiteral("Clip *.mp4")).size(), 1);
}

TEST_F(Journey, TheMicrophoneSwitchSaysWhyItWaitsWhileRecording)
{
    launch();
    QWidget *mic = find(QStringLiteral("microphone"));
    ASSERT_NE(mic, nullptr);
    click(QStringLiteral("microphone"));
    EXPECT_TRUE(shell().model().captureMic());
    EXPECT_TRUE(Preferences::open()->value(QStringLiteral("captureMic")).toBool());
    click(QStringLiteral("microphone"));
    EXPECT_FALSE(Preferences::open()->value(QStringLiteral("captureMic")).toBool());

    armAndFill(0.5);
    EXPECT_FALSE(mic->isEnabled()) << "the replay's tracks change between recordings";
    EXPECT_EQ(find<QLabel>(QStringLiteral("microphoneNote"))->text(),
              QStringLiteral("Stop recording to change the microphone."));
    saveScreen(window(), QStringLiteral("home-armed-microphone"));
    click(QStringLiteral("tabSettings"));
    EXPECT_FALSE(find(QStringLiteral("recordMicrophone"))->isEnabled());
    EXPECT_NE(find(QStringLiteral("microphoneNote")), nullptr) << "Settings says it too";

    click(QStringLiteral("tabHome"));
    click(QStringLiteral("arm"));
    ASSERT_TRUE(waitFor([&] { return !shell().model().isClipping(); }, 20s));
    EXPECT_TRUE(mic->isEnabled());
    EXPECT_TRUE(window()->findChild<QLabel *>(QStringLiteral("microphoneNote"))->isHidden());
    click(QStringLiteral("microphone"));
    EXPECT_TRUE(Preferences::open()->value(QStringLiteral("captureMic")).toBool());
}

TEST_F(Journey, TheLoginSwitchOwnsTheAutostartEntry)
{
    const QString entry = configHome() + QStringLiteral("/autostart/vantrel.desktop");
    // A copy from an earlier version wrote the entry at every launch, pointing into a build
    // folder, though the user had turned the switch off.
    writeSettings("armOnLaunch=false\n");
    QDir().mkpath(QFileInfo(entry).path());
    QFile stale(entry);
    ASSERT_TRUE(stale.open(QIODevice::WriteOnly));
    stale.write(
        "[Desktop Entry]\nType=Application\nExec=\"/home/dev/vantrel/build/bin/vantrel\"\n");
    stale.close();

    launch();
    EXPECT_FALSE(QFile::exists(entry)) << "the switch is off, so nothing starts at login";
    click(QStringLiteral("tabSettings"));
    // Nothing is installed: the switch says why it cannot start Vantrel at login.
    click(QStringLiteral("armOnLaunch"));
    EXPECT_TRUE(shell().model().armOnLaunch());
    EXPECT_FALSE(QFile::exists(entry)) << "never an entry for a build folder";
    EXPECT_NE(find(QStringLiteral("loginNote")), nullptr);

    // With a release installed for this user, the entry starts that.
    const QString program = home() + QStringLiteral("/opt/Vantrel/bin/vantrel");
    QDir().mkpath(QFileInfo(program).path());
    QFile installed(program);
    ASSERT_TRUE(installed.open(QIODevice::WriteOnly));
    installed.write("#!/bin/sh\n");
    installed.close();
    installed.setPermissions(QFile::ReadOwner | QFile::ExeOwner);
    click(QStringLiteral("armOnLaunch"));
    click(QStringLiteral("armOnLaunch"));
    ASSERT_TRUE(QFile::exists(entry));
    EXPECT_EQ(AutostartEntry::startedProgram(), program);
    EXPECT_TRUE(readTextFile(entry).contains(QStringLiteral("Exec=\"%1\"").arg(program)));
    EXPECT_TRUE(window()->findChild<QWidget *>(QStringLiteral("loginNote"))->isHidden());

    click(QStringLiteral("armOnLaunch"));
    EXPECT_FALSE(QFile::exists(entry));
    EXPECT_FALSE(Preferences::open()->value(QStringLiteral("armOnLaunch")).toBool());

    // A launch does not write it back against the switch.
    quit();
    launch();
    EXPECT_FALSE(QFile::exists(entry));
}
