// The whole program, as a user runs it: the real vantrel binary against the fixtures' X and
// audio servers, with a home of its own. Progress is read from its log, where every status
// line also goes.

#include "VantrelProcess.h"

#include "support/TestEnvironment.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QThread>

#include <unistd.h>

using namespace std::chrono_literals;

namespace {

QStringList clipsIn(const QString &folder, const QString &pattern = QStringLiteral("Clip *.mp4"))
{
    return QDir(folder).entryList({pattern}, QDir::Files);
}

// ffprobe's format duration of a file, or -1 when it does not play.
double playableDuration(const QString &path)
{
    const QString out =
        runCommand(QStringLiteral("ffprobe"),
                   {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-show_entries"),
                    QStringLiteral("format=duration"), QStringLiteral("-of"),
                    QStringLiteral("csv=p=0"), path});
    bool ok = false;
    const double duration = out.trimmed().toDouble(&ok);
    return ok ? duration : -1;
}

void pressKey(const QString &key)
{
    runCommand(QStringLiteral("xdotool"), {QStringLiteral("key"), key});
}

class EndToEnd : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        if (qEnvironmentVariableIsEmpty("DISPLAY"))
            GTEST_SKIP() << "needs the xvfb fixture";
        // A short replay keeps the tests quick; the clip key is the default F12.
        QDir().mkpath(configHome() + QStringLiteral("/quillfen"));
        QFile conf(configHome() + QStringLiteral("/quillfen/Vantrel.conf"));
        ASSERT_TRUE(conf.open(QIODevice::WriteOnly));
        conf.write("[General]\nclipLengthSeconds=15\n");
    }

    bool armed(VantrelProcess &app)
    {
        return app.waitForLog(QStringLiteral("startCapture ok"), 20s);
    }
};

} // namespace

TEST_F(EndToEnd, ArmsAtLaunchSavesOnTheClipKeyAndIgnoresASecondPressWithinTheDebounce)
{
    VantrelProcess app(home());
    app.start();
    ASSERT_TRUE(armed(app)) << app.output().toStdString() << app.logSinceStart().toStdString();
    ASSERT_TRUE(app.waitForLog(QStringLiteral("status: Recording."), 5s));
    QThread::sleep(3);

    pressKey(QStringLiteral("F12"));
    QThread::msleep(1000);
    pressKey(QStringLiteral("F12"));
    ASSERT_TRUE(app.waitForLog(QStringLiteral("status: Saved Clip "), 20s))
        << app.logSinceStart().toStdString();
    QThread::msleep(1500);
    const QStringList clips = clipsIn(app.recordings());
    ASSERT_EQ(clips.size(), 1) << clips.join(QLatin1Char(',')).toStdString();
    EXPECT_EQ(app.countLog(QStringLiteral("status: Saving clip…")), 1);
    const double duration = playableDuration(app.recordings() + QLatin1Char('/') + clips[0]);
    EXPECT_GT(duration, 1.0);
    EXPECT_LT(duration, 8.0);
    EXPECT_TRUE(app.logSinceStart().contains(QStringLiteral("status: Saved ") + clips[0] +
                                             QLatin1Char('.')));

    // A second launch hands its link to the first and exits; the first stops and keeps the
    // session file.
    EXPECT_EQ(app.launchAgain({QStringLiteral("vantrel://stop")}), 0);
    ASSERT_TRUE(app.waitForLog(QStringLiteral("status: Saved Session "), 15s))
        << app.logSinceStart().toStdString();
    const QStringList sessions = clipsIn(app.recordings(), QStringLiteral("Session *.mp4"));
    ASSERT_EQ(sessions.size(), 1);
    EXPECT_GT(playableDuration(app.recordings() + QLatin1Char('/') + sessions[0]), 3.0);
    EXPECT_TRUE(app.isRunning());
    EXPECT_TRUE(app.terminate(10s));
}

TEST_F(EndToEnd, QuittingWhileArmedKeepsTheSessionFile)
{
    VantrelProcess app(home());
    app.start();
    ASSERT_TRUE(armed(app)) << app.logSinceStart().toStdString();
    QThread::sleep(3);
    ASSERT_TRUE(app.terminate(9s));
    const QStringList sessions = clipsIn(app.recordings(), QStringLiteral("Session *.mp4"));
    ASSERT_EQ(sessions.size(), 1) << app.logSinceStart().toStdString();
    EXPECT_GT(playableDuration(app.recordings() + QLatin1Char('/') + sessions[0]), 2.0);
}

TEST_F(EndToEnd, LinksFromATerminalDriveTheRunningProgram)
{
    QFile conf(configHome() + QStringLiteral("/quillfen/Vantrel.conf"));
    ASSERT_TRUE(conf.open(QIODevice::WriteOnly));
    conf.write("[General]\nclipLengthSeconds=15\narmOnLaunch=false\n");
    conf.close();

    VantrelProcess app(home());
    app.start();
    ASSERT_TRUE(app.waitForOutput(QStringLiteral("log:"), 10s)) << app.output().toStdString();
    QThread::sleep(2);
    EXPECT_EQ(app.countLog(QStringLiteral("startCapture ok")), 0); // not armed at launch
    EXPECT_EQ(app.launchAgain({QStringLiteral("vantrel://clip")}), 0);
    QThread::sleep(1);
    EXPECT_EQ(app.countLog(QStringLiteral("status: Saving clip…")), 0); // nothing to save yet

    EXPECT_EQ(app.launchAgain({QStringLiteral("vantrel://start")}), 0);
    ASSERT_TRUE(armed(app)) << app.logSinceStart().toStdString();
    QThread::sleep(3);
    EXPECT_EQ(app.launchAgain({QStringLiteral("vantrel://clip")}), 0);
    ASSERT_TRUE(app.waitForLog(QStringLiteral("status: Saved Clip "), 20s));
    EXPECT_EQ(clipsIn(app.recordings()).size(), 1);
    EXPECT_TRUE(app.terminate(10s));
}

// Killed while a clip is being written: the half-written file is the export's temporary one, so
// every file in the recordings folder still plays. The kill waits for that file to be written to,
// so it really lands in the middle of the save (a save that wrote straight into the recordings
// folder would show its half-written clip here).
TEST_F(EndToEnd, KilledInTheMiddleOfASaveLeavesNothingBrokenInTheLibrary)
{
    VantrelProcess app(home());
    app.start();
    ASSERT_TRUE(armed(app)) << app.logSinceStart().toStdString();
    const QDir temp(tempFolder());
    const auto beingWritten = [&] {
        for (const QFileInfo &entry :
             temp.entryInfoList({QStringLiteral("vantrel-*.mp4")}, QDir::Files)) {
            if (!entry.fileName().startsWith(QLatin1String("vantrel-session-")) && entry.size() > 0)
                return entry.filePath();
        }
        return QString();
    };
    // The audio packets (40 ms each) the replay held when the latest save began, from its log
    // line; the test screen is still, so the video is one frame whatever the wait.
    const auto lastSavePackets = [&] {
        const QString log = app.logSinceStart();
        const qsizetype line = log.lastIndexOf(QStringLiteral("saveClip buffer="));
        const qsizetype at = log.indexOf(QStringLiteral(" audio="), line);
        return line < 0 || at < 0 ? 0 : QStringView(log).mid(at + 7).split(u'\n').first().toInt();
    };
    // A save right after arming is refused or written in no time, and a save may finish between
    // two looks: press again (past the debounce) until a save of some seconds is caught writing.
    QString caught;
    const QDeadlineTimer deadline(40s);
    while (caught.isEmpty() && !deadline.hasExpired()) {
        pressKey(QStringLiteral("F12"));
        const QDeadlineTimer attempt(1600ms);
        while (caught.isEmpty() && !attempt.hasExpired()) {
            if (lastSavePackets() >= 75) // three seconds
                caught = beingWritten();
            if (caught.isEmpty())
                QThread::msleep(2);
        }
    }
    ASSERT_FALSE(caught.isEmpty()) << app.logSinceStart().toStdString();
    app.kill();

    // Every file the library could list (hidden ones it never lists) plays, however short: an
    // earlier press may have saved the first frames alone, and that clip is whole.
    for (const QString &name : QDir(app.recordings()).entryList(QDir::Files))
        EXPECT_GT(playableDuration(app.recordings() + QLatin1Char('/') + name), 0.0)
            << name.toStdString();
}

namespace {

// An X server of the test's own, which it may kill and bring back.
class PrivateX
{
public:
    PrivateX()
        : m_display(QStringLiteral(":%1").arg(500 + getpid() % 300))
    {
    }
    ~PrivateX() { stop(); }
    const QString &display() const { return m_display; }
    bool start()
    {
        m_server.setProcessChannelMode(QProcess::ForwardedChannels);
        m_server.start(QStringLiteral("Xvfb"),
                       {m_display, QStringLiteral("-screen"), QStringLiteral("0"),
                        QStringLiteral("1280x720x24"), QStringLiteral("-nolisten"),
                        QStringLiteral("tcp"), QStringLiteral("-noreset")});
        for (int i = 0; i < 100; ++i) {
            QProcess probe;
            probe.start(QStringLiteral("xdpyinfo"), {QStringLiteral("-display"), m_display});
            if (probe.waitForFinished(2000) && probe.exitCode() == 0)
                return true;
            QThread::msleep(100);
        }
        return false;
    }
    void stop()
    {
        m_server.kill();
        m_server.waitForFinished(3000);
    }

private:
    QString m_display;
    QProcess m_server;
};

} // namespace

TEST_F(EndToEnd, ALostXServerDropsTheCaptureAndRecordingResumesWhenItIsBack)
{
    PrivateX x;
    ASSERT_TRUE(x.start());
    VantrelProcess app(home());
    app.setEnv(QStringLiteral("DISPLAY"), x.display());
    app.start();
    ASSERT_TRUE(armed(app)) << app.logSinceStart().toStdString();
    QThread::sleep(2);
    // The server comes back at once, as a restarted display manager's would, before the re-arm
    // 1.2 s after the drop.
    x.stop();
    ASSERT_TRUE(x.start());
    ASSERT_TRUE(
        app.waitForLog(QStringLiteral("status: Capture dropped. Restarting recording…"), 10s))
        << app.logSinceStart().toStdString();
    bool rearmed = false;
    for (int i = 0; i < 200 && !rearmed; ++i) {
        rearmed = app.countLog(QStringLiteral("startCapture ok")) >= 2;
        QThread::msleep(100);
    }
    EXPECT_TRUE(rearmed) << app.logSinceStart().toStdString();
    EXPECT_EQ(app.countLog(QStringLiteral("launched version")), 1); // re-armed, not relaunched
    // The dropped arming's session file is not kept.
    EXPECT_TRUE(clipsIn(app.recordings(), QStringLiteral("Session *.mp4")).isEmpty());
    EXPECT_TRUE(app.terminate(10s));
}

TEST_F(EndToEnd, WakingFromSleepResumesRecordingWhenItWasLeftRunning)
{
    QProcess bus;
    bus.start(QStringLiteral("dbus-daemon"),
              {QStringLiteral("--session"), QStringLiteral("--print-address"),
               QStringLiteral("--nofork")});
    ASSERT_TRUE(bus.waitForReadyRead(5000));
    const QString address = QString::fromUtf8(bus.readLine()).trimmed();
    ASSERT_FALSE(address.isEmpty());

    QFile conf(configHome() + QStringLiteral("/quillfen/Vantrel.conf"));
    ASSERT_TRUE(conf.open(QIODevice::WriteOnly));
    conf.write("[General]\nclipLengthSeconds=15\narmOnLaunch=false\n");
    conf.close();
    VantrelProcess app(home());
    app.setEnv(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), address);
    app.start();
    QThread::sleep(2);
    EXPECT_EQ(app.countLog(QStringLiteral("startCapture ok")), 0);

    // Left running before the sleep: the intent is in the settings, which are read anew.
    ASSERT_TRUE(conf.open(QIODevice::WriteOnly));
    conf.write("[General]\nclipLengthSeconds=15\narmOnLaunch=false\nkeepRunning=true\n");
    conf.close();
    runCommand(QStringLiteral("dbus-send"),
               {QStringLiteral("--bus=") + address, QStringLiteral("--type=signal"),
                QStringLiteral("/org/freedesktop/login1"),
                QStringLiteral("org.freedesktop.login1.Manager.PrepareForSleep"),
                QStringLiteral("boolean:false")});
    EXPECT_TRUE(app.waitForLog(QStringLiteral("status: Computer woke up. Resuming recording…"), 5s))
        << app.logSinceStart().toStdString();
    EXPECT_TRUE(armed(app));
    EXPECT_TRUE(app.terminate(10s));
    bus.kill();
    bus.waitForFinished();
}
