// The whole program in the fixture's headless Wayland session, as a user there runs it: its
// windows through Qt's Wayland plugin, the screen through the desktop portal and PipeWire, the
// sound through PipeWire's pulse server, and the clip key as the desktop's global shortcut. sway
// has no tray, so the program runs without one.

#include "VantrelProcess.h"

#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QThread>

using namespace std::chrono_literals;

namespace {

void pressOnTheDesktop()
{
    runCommand(QStringLiteral("busctl"),
               {QStringLiteral("--user"), QStringLiteral("call"),
                QStringLiteral("org.freedesktop.impl.portal.desktop.vantreltest"),
                QStringLiteral("/org/freedesktop/portal/desktop"),
                QStringLiteral("org.vantrel.TestShortcuts"), QStringLiteral("Press"),
                QStringLiteral("s"), QStringLiteral("save-clip")});
}

class WaylandEndToEnd : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        if (qEnvironmentVariableIsEmpty("VANTREL_WAYLAND_DIR"))
            GTEST_SKIP() << "needs the wayland fixture";
        QDir().mkpath(configHome() + QStringLiteral("/quillfen"));
        QFile conf(configHome() + QStringLiteral("/quillfen/Vantrel.conf"));
        ASSERT_TRUE(conf.open(QIODevice::WriteOnly));
        conf.write("[General]\nclipLengthSeconds=15\n");
    }
};

} // namespace

TEST_F(WaylandEndToEnd, RecordsTheWaylandScreenAndSavesOnTheDesktopShortcut)
{
    VantrelProcess app(home());
    app.setEnv(QStringLiteral("QT_QPA_PLATFORM"), QString());
    app.start();
    ASSERT_TRUE(app.waitForLog(QStringLiteral("startCapture ok"), 30s))
        << app.output().toStdString() << app.logSinceStart().toStdString();
    ASSERT_TRUE(app.waitForOutput(QStringLiteral("global shortcut bound"), 10s))
        << app.output().toStdString();
    const QString output = app.output();
    EXPECT_TRUE(output.contains(QStringLiteral("capture backend: wayland")))
        << output.toStdString();
    EXPECT_TRUE(app.logSinceStart().contains(
        QStringLiteral("no system tray on this desktop (wayland): running without a tray icon")))
        << app.logSinceStart().toStdString();
    ASSERT_TRUE(app.waitForLog(QStringLiteral("status: Recording. F12 saves the last 15 seconds "
                                              "from any app."),
                               10s))
        << app.logSinceStart().toStdString();
    QThread::sleep(3);

    pressOnTheDesktop();
    ASSERT_TRUE(app.waitForLog(QStringLiteral("status: Saved Clip "), 30s))
        << app.logSinceStart().toStdString();
    const QStringList clips = QDir(app.recordings()).entryList({QStringLiteral("Clip *.mp4")});
    ASSERT_EQ(clips.size(), 1);
    EXPECT_EQ(app.countLog(QStringLiteral("status: Saving clip…")), 1);
    const QString duration =
        runCommand(QStringLiteral("ffprobe"),
                   {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-show_entries"),
                    QStringLiteral("format=duration"), QStringLiteral("-of"),
                    QStringLiteral("csv=p=0"), app.recordings() + QLatin1Char('/') + clips[0]});
    EXPECT_GT(duration.trimmed().toDouble(), 2.0);
    EXPECT_TRUE(app.terminate(10s));
}
