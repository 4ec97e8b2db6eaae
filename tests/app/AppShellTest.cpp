// The shell in this process, against the fixtures' X and audio servers: the status lines and
// the tray menu through a whole arm, save and stop, the save guards, and a second launch
// handing its link to the first.

#include "app/AppShell.h"
#include "app/AppModel.h"
#include "app/ArmingController.h"
#include "app/ClipLibrary.h"
#include "app/ClipSaver.h"
#include "app/DashboardActions.h"
#include "app/DashboardWindow.h"
#include "app/TrayIcon.h"
#include "app/WindowHome.h"
#include "core/Paths.h"
#include "core/Preferences.h"
#include "engine/ClipEngine.h"

#include "support/TestEnvironment.h"
#include "support/WidgetTesting.h"

#include <QAction>
#include <QCheckBox>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>

#include <functional>

namespace {

void pump(int ms)
{
    waitUntil([] { return false; }, ms);
}

QStringList menuTexts(const QMenu *menu)
{
    QStringList texts;
    for (const QAction *action : menu->actions()) {
        if (action->isVisible())
            texts << (action->isSeparator() ? QStringLiteral("-") : action->text());
    }
    return texts;
}

class AppShellTest : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        if (qEnvironmentVariableIsEmpty("DISPLAY"))
            GTEST_SKIP() << "needs the xvfb fixture";
        usePrivateRuntime();
        writeSettings("clipLengthSeconds=15\n");
    }

    // Every status line the shell shows, in order.
    void follow(AppShell &shell)
    {
        QObject::connect(&shell.model(), &AppModel::statusChanged, &shell,
                         [this, &shell] { statuses << shell.model().status(); });
    }

    QStringList statuses;
};

} // namespace

TEST_F(AppShellTest, ArmsAtLaunchSavesWithGuardsAndStopsKeepingTheSession)
{
    AppShell shell;
    follow(shell);
    ASSERT_TRUE(shell.launch({}));
    ASSERT_NE(shell.tray()->menu(), nullptr);
    EXPECT_EQ(menuTexts(shell.tray()->menu()),
              QStringList({"Open Vantrel", "-", "Arm Recording", "-", "Open Recordings", "-",
                           "Quit Vantrel"}));

    // Not armed yet: a save does nothing at all.
    shell.saver()->save();
    EXPECT_TRUE(statuses.isEmpty());

    ASSERT_TRUE(waitUntil([&] { return shell.model().isClipping(); }, 20000))
        << statuses.join(QLatin1Char('|')).toStdString();
    const QString armed = QStringLiteral("Recording. F12 saves the last 15 seconds from any app.");
    const QString armedLocal = QStringLiteral(
        "Recording, but F12 only works in this window. Add yourself to the input group to use it "
        "everywhere.");
    ASSERT_EQ(statuses.size(), 2);
    EXPECT_EQ(statuses[0], QStringLiteral("Arming recording…"));
    EXPECT_TRUE(statuses[1] == armed || statuses[1] == armedLocal) << statuses[1].toStdString();
    EXPECT_FALSE(shell.model().isBusy());
    EXPECT_EQ(menuTexts(shell.tray()->menu()),
              QStringList({"Open Vantrel", "-", "Save Clip  F12", "Save last 15s", "Save last 30s",
                           "Save last 60s", "Save last 120s", "Stop Recording", "-",
                           "Open Recordings", "-", "Quit Vantrel"}));

    // A second arming while armed changes nothing.
    shell.arming()->start();
    EXPECT_EQ(statuses.size(), 2);

    pump(3000);
    statuses.clear();
    shell.saver()->save();
    shell.saver()->save(); // while the first runs: ignored
    ASSERT_TRUE(waitUntil([&] { return !shell.model().isSaving(); }, 20000));
    // Signed out, the share hook replaces the line that named the file.
    ASSERT_EQ(statuses.size(), 3) << statuses.join(QLatin1Char('|')).toStdString();
    EXPECT_EQ(statuses[0], QStringLiteral("Saving clip…"));
    ASSERT_TRUE(statuses[1].startsWith(QStringLiteral("Saved Clip "))) << statuses[1].toStdString();
    EXPECT_TRUE(statuses[1].endsWith(QStringLiteral(".mp4.")));
    EXPECT_EQ(statuses[2], QStringLiteral("Saved. Sign in to share a link."));
    EXPECT_EQ(shell.model().tab(), AppModel::Tab::library);
    const QString clipName = statuses[1].mid(6).chopped(1);
    ASSERT_FALSE(shell.model().clips().isEmpty());
    EXPECT_EQ(shell.model().clips().first().name, clipName);
    EXPECT_TRUE(QFileInfo::exists(home() + QStringLiteral("/Videos/Vantrel/") + clipName));

    // Within 1.5 s of the last accepted press: ignored, even though that save has finished.
    shell.saver()->save();
    EXPECT_EQ(statuses.size(), 3);

    shell.arming()->stop();
    shell.arming()->start(); // while the stop runs: ignored
    ASSERT_TRUE(waitUntil([&] { return !shell.model().isClipping(); }, 15000));
    ASSERT_TRUE(waitUntil(
        [&] { return statuses.last().startsWith(QStringLiteral("Saved Session ")); }, 5000))
        << statuses.join(QLatin1Char('|')).toStdString();
    EXPECT_FALSE(statuses.last().endsWith(QLatin1Char('.')));
    EXPECT_TRUE(
        QFileInfo::exists(home() + QStringLiteral("/Videos/Vantrel/") + statuses.last().mid(6)));
    pump(500);
    EXPECT_FALSE(shell.engine().isArmed());
    EXPECT_EQ(menuTexts(shell.tray()->menu())[2], QStringLiteral("Arm Recording"));
    shell.shutDown();
}

TEST_F(AppShellTest, ASecondLaunchHandsItsLinksToTheFirstAndBuildsNothing)
{
    writeSettings("clipLengthSeconds=15\narmOnLaunch=false\n");

    AppShell first;
    follow(first);
    ASSERT_TRUE(first.launch({}));
    pump(1000);
    EXPECT_FALSE(first.model().isClipping()); // neither the settings nor the intent say arm
    EXPECT_TRUE(statuses.isEmpty());

    bool handedOff = false;
    {
        AppShell second;
        // The hand-off waits for the first to read the link, so the first must keep running.
        QMetaObject::invokeMethod(
            &second, [&] { handedOff = !second.launch({"vantrel://start"}); },
            Qt::QueuedConnection);
        ASSERT_TRUE(waitUntil([&] { return handedOff; }, 5000));
        EXPECT_EQ(second.tray(), nullptr);
        EXPECT_EQ(second.library(), nullptr);
    }
    ASSERT_TRUE(waitUntil([&] { return first.model().isClipping(); }, 20000))
        << statuses.join(QLatin1Char('|')).toStdString();
    first.shutDown();
}

// Every start that fails says why in the status line, with its own sentence.
TEST_F(AppShellTest, EachStartFailureSaysWhy)
{
    writeSettings("clipLengthSeconds=15\narmOnLaunch=false\n");
    AppShell shell;
    follow(shell);
    ASSERT_TRUE(shell.launch({}));

    // Arms with one variable of the environment changed and answers the last status line.
    const auto armWith = [&](const char *name, const QByteArray &value) {
        const QByteArray old = qgetenv(name);
        qputenv(name, value);
        statuses.clear();
        shell.arming()->start();
        EXPECT_TRUE(waitUntil([&] { return !shell.model().isBusy(); }, 20000));
        qputenv(name, old);
        EXPECT_FALSE(shell.model().isClipping());
        EXPECT_FALSE(shell.engine().isArmed());
        return statuses.isEmpty() ? QString() : statuses.last();
    };

    // An audio server address with nothing behind it.
    const QString socket = home() + QStringLiteral("/.run/pulse-gone");
    const QString noAudio = armWith("PULSE_SERVER", "unix:" + QFile::encodeName(socket));
    EXPECT_TRUE(noAudio.startsWith(
        QStringLiteral("Could not connect to the audio server (PulseAudio or PipeWire): ")))
        << noAudio.toStdString();

    const QString noEncoder = armWith("VANTREL_ENCODER", "h264_nonesuch");
    EXPECT_TRUE(noEncoder.startsWith(QStringLiteral("Could not start the video encoder (")))
        << noEncoder.toStdString();
    EXPECT_TRUE(noEncoder.endsWith(QStringLiteral("): h264_nonesuch: no such encoder.")))
        << noEncoder.toStdString();

    EXPECT_EQ(armWith("DISPLAY", ":1999"),
              QStringLiteral("Could not open the X display \":1999\": no X server answers there."));

    // A Wayland session whose desktop offers no screen-sharing portal (here, no bus at all).
    const QString noPortal = armWith("WAYLAND_DISPLAY", "wayland-nonesuch");
    EXPECT_TRUE(noPortal.startsWith(
        QStringLiteral("This Wayland session has no screen-sharing portal. Install ")))
        << noPortal.toStdString();

    // With the causes gone the same shell arms.
    shell.arming()->start();
    EXPECT_TRUE(waitUntil([&] { return shell.model().isClipping(); }, 20000))
        << statuses.join(QLatin1Char('|')).toStdString();
    shell.shutDown();
}

// Without a tray the window is the only sign of the program: closing it asks, Cancel keeps it,
// keeping on hides it while recording goes on (once "Don't ask again" is ticked, without asking),
// and Quit quits. With a tray, closing only hides.
TEST_F(AppShellTest, WithoutATrayClosingTheWindowAsksWhetherToKeepRecording)
{
    AppShell shell;
    ASSERT_TRUE(shell.launch({}));
    ASSERT_TRUE(waitUntil([&] { return shell.model().isClipping(); }, 20000));
    WindowHome &home = *shell.windowHome();
    DashboardWindow *window = shell.window();
    ASSERT_NE(window, nullptr);
    home.trayAvailable = [] { return false; };
    int quits = 0;
    QObject::connect(&home, &WindowHome::quitRequested, &home, [&] { ++quits; });

    const auto closeAndAnswer = [&](const QString &button, bool dontAsk) {
        EXPECT_FALSE(window->close());
        EXPECT_TRUE(window->isVisible());
        QMessageBox *question = home.question();
        if (!question) {
            ADD_FAILURE() << "no question";
            return;
        }
        EXPECT_EQ(question->text(), QStringLiteral("Keep recording in the background?"));
        EXPECT_TRUE(question->informativeText().contains(
            QStringLiteral("open Vantrel from your applications or run vantrel vantrel://open")));
        question->checkBox()->setChecked(dontAsk);
        for (QAbstractButton *each : question->buttons()) {
            if (each->text() == button)
                each->click();
        }
        pump(50);
    };
    closeAndAnswer(QStringLiteral("Cancel"), false);
    EXPECT_TRUE(window->isVisible());
    EXPECT_EQ(home.question(), nullptr);

    closeAndAnswer(QStringLiteral("Keep Recording"), true);
    EXPECT_FALSE(window->isVisible());
    EXPECT_TRUE(shell.model().isClipping());
    EXPECT_TRUE(
        readTextFile(Paths::logFile())
            .contains(QStringLiteral("window closed without a tray: Vantrel keeps running")));
    EXPECT_TRUE(
        Preferences::open()->value(QString::fromLatin1(WindowHome::keepRunningKey)).toBool());

    // Asked not to ask: closing hides at once.
    shell.showWindow();
    EXPECT_TRUE(window->close());
    EXPECT_EQ(home.question(), nullptr);
    EXPECT_FALSE(window->isVisible());

    // A tray needs no question.
    Preferences::open()->remove(QString::fromLatin1(WindowHome::keepRunningKey));
    home.trayAvailable = [] { return true; };
    shell.showWindow();
    EXPECT_TRUE(window->close());
    EXPECT_EQ(home.question(), nullptr);

    home.trayAvailable = [] { return false; };
    shell.showWindow();
    closeAndAnswer(QStringLiteral("Quit Vantrel"), false);
    EXPECT_EQ(quits, 1);
    shell.shutDown();
}
