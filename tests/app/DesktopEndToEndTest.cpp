// The whole program in headless sessions of the desktops most users run, each started by its test
// (tests/fixtures/desktop-session): KDE Plasma, whose portal binds the clip key only when the
// shortcuts come with the session, and GNOME, whose portal has no global shortcuts at all. The
// screen cast is pre-approved as after a user allowed it once, since neither desktop's question
// can be answered headless.

#include "VantrelProcess.h"

#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QThread>

using namespace std::chrono_literals;

namespace {

const QString script = QStringLiteral(VANTREL_DESKTOP_SESSION);

// The session's own script, as a user's desktop would do the thing: its exit code and output.
std::pair<int, QString> session(const QStringList &arguments, int timeoutMs = 30000)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(script, arguments);
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        return {-1, {}};
    }
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()).trimmed()};
}

// The MD5 of the frame at `seconds` into `clip`.
QString frameHash(const QString &clip, double seconds)
{
    return runCommand(QStringLiteral("ffmpeg"),
                      {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-ss"),
                       QString::number(seconds), QStringLiteral("-i"), clip,
                       QStringLiteral("-frames:v"), QStringLiteral("1"), QStringLiteral("-f"),
                       QStringLiteral("md5"), QStringLiteral("-")})
        .trimmed();
}

class DesktopEndToEnd : public TempHomeTest
{
protected:
    // Starts the desktop's session; skips the test where its packages are missing.
    void startSession(const QString &kind)
    {
        m_dir = QStringLiteral(VANTREL_DESKTOP_DIR) + QLatin1Char('/') + kind;
        const auto [code, output] = session({QStringLiteral("start"), kind, m_dir}, 180000);
        if (code == 77)
            GTEST_SKIP() << output.toStdString();
        ASSERT_EQ(code, 0) << "the " << kind.toStdString() << " session did not start";
        const auto [tokenCode, token] = session({QStringLiteral("token"), m_dir});
        ASSERT_EQ(tokenCode, 0);
        ASSERT_FALSE(token.isEmpty());
        writeSettings("clipLengthSeconds=15\nscreenCastRestoreToken=" + token.toUtf8() + "\n");
    }
    void TearDown() override
    {
        if (!m_dir.isEmpty())
            session({QStringLiteral("stop"), m_dir});
        TempHomeTest::TearDown();
    }

    // The desktop's session, and the program in it as its user starts it, armed at launch.
    void armIn(const QString &kind, VantrelProcess &app)
    {
        ASSERT_NO_FATAL_FAILURE(startSession(kind));
        if (IsSkipped())
            return;
        startApp(app);
        ASSERT_TRUE(app.waitForLog(QStringLiteral("startCapture ok"), 60s))
            << app.output().toStdString() << app.logSinceStart().toStdString();
    }

    // The program through Qt's Wayland plugin, with the session's environment.
    void startApp(VantrelProcess &app)
    {
        const QStringList env =
            QString::fromUtf8([&] {
                QFile file(m_dir + QStringLiteral("/env"));
                return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
            }())
                .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        for (QString line : env) {
            line.remove(QStringLiteral("export "));
            const qsizetype equals = line.indexOf(QLatin1Char('='));
            app.setEnv(line.left(equals), line.mid(equals + 1));
        }
        app.setEnv(QStringLiteral("QT_QPA_PLATFORM"), QString());
        app.setEnv(QStringLiteral("DISPLAY"), QString());
        app.start();
    }

    // The one clip saved: long enough, `width` wide (when given), and moving from second to
    // second (the session's gears turn).
    void expectAMovingClip(VantrelProcess &app, int width)
    {
        const QStringList clips = QDir(app.recordings()).entryList({QStringLiteral("Clip *.mp4")});
        ASSERT_EQ(clips.size(), 1);
        const QString clip = app.recordings() + QLatin1Char('/') + clips[0];
        const QStringList probed =
            runCommand(QStringLiteral("ffprobe"),
                       {QStringLiteral("-v"), QStringLiteral("error"),
                        QStringLiteral("-select_streams"), QStringLiteral("v:0"),
                        QStringLiteral("-show_entries"),
                        QStringLiteral("stream=width:format=duration"), QStringLiteral("-of"),
                        QStringLiteral("csv=p=0"), clip})
                .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        ASSERT_EQ(probed.size(), 2) << probed.join(u' ').toStdString();
        if (width > 0) {
            EXPECT_EQ(probed[0].toInt(), width);
        }
        EXPECT_GT(probed[1].toDouble(), 3.0);
        const QString first = frameHash(clip, 0.5);
        EXPECT_FALSE(first.isEmpty());
        EXPECT_NE(first, frameHash(clip, 2.5));
        // Kept for a person to look at, when asked.
        if (const QString keep = qEnvironmentVariable("VANTREL_KEEP_CLIPS"); !keep.isEmpty()) {
            QDir().mkpath(keep);
            QFile::copy(clip,
                        keep + QLatin1Char('/') + m_dir.section(u'/', -1) + QStringLiteral(".mp4"));
        }
    }

    QString sessionDir() const { return m_dir; }

private:
    QString m_dir;
};

} // namespace

// Plasma 5.27 binds only the shortcuts CreateSession brings: the clip key pressed on the desktop
// saves a clip. KWin's virtual output sends no frames of the monitor, so the pre-approved cast is
// of the moving window.
TEST_F(DesktopEndToEnd, OnPlasmaTheDesktopsShortcutSavesAClip)
{
    VantrelProcess app(home());
    ASSERT_NO_FATAL_FAILURE(armIn(QStringLiteral("kde"), app));
    if (IsSkipped())
        return;
    ASSERT_TRUE(app.waitForOutput(QStringLiteral("global shortcut bound"), 20s))
        << app.output().toStdString();
    ASSERT_TRUE(app.waitForLog(QStringLiteral("status: Recording. F12 saves the last 15 seconds "
                                              "from any app."),
                               10s))
        << app.logSinceStart().toStdString();
    QThread::sleep(4);

    ASSERT_EQ(session({QStringLiteral("press"), sessionDir(), QStringLiteral("save-clip")}).first,
              0)
        << "no session bound save-clip";
    ASSERT_TRUE(app.waitForLog(QStringLiteral("status: Saved Clip "), 30s))
        << app.logSinceStart().toStdString();
    EXPECT_EQ(app.countLog(QStringLiteral("status: Saving clip…")), 1);
    expectAMovingClip(app, 0);
    EXPECT_TRUE(app.terminate(10s));
}

// GNOME 43 records the whole monitor; its portal has no global shortcuts, so the status line
// says that the key works in the window only and what a GNOME user does about it, and the link a
// custom shortcut of GNOME's would run saves the clip.
TEST_F(DesktopEndToEnd, OnGnomeTheMonitorIsRecordedAndTheStatusSaysHowToGetAKey)
{
    VantrelProcess app(home());
    ASSERT_NO_FATAL_FAILURE(armIn(QStringLiteral("gnome"), app));
    if (IsSkipped())
        return;
    ASSERT_TRUE(app.waitForLog(QStringLiteral("status: Recording, but F12 only works in this "
                                              "window. GNOME gives apps shortcuts of their own "
                                              "only from version 48: add one in Settings › "
                                              "Keyboard › View and Customize Shortcuts › Custom "
                                              "Shortcuts with the command vantrel vantrel://clip"),
                               20s))
        << app.logSinceStart().toStdString();
    QThread::sleep(4);

    EXPECT_EQ(app.launchAgain({QStringLiteral("vantrel://clip")}), 0);
    ASSERT_TRUE(app.waitForLog(QStringLiteral("status: Saved Clip "), 30s))
        << app.logSinceStart().toStdString();
    expectAMovingClip(app, 1920);
    EXPECT_TRUE(app.terminate(10s));
}
