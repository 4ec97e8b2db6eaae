#include "update/UpdateTestSupport.h"

#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTest>

#include <gtest/gtest.h>

#include <csignal>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// The program as a user has it: installed from the old release with `vantrel --install`, started
// from its installed folder, finding the newer release on the real service (the "service"
// fixture, over HTTPS) at launch.
class UpdateEndToEndTest : public TempHomeTest
{
protected:
    void SetUp() override
    {
        serviceUrl = qEnvironmentVariable("VANTREL_TEST_SERVICE_URL");
        if (serviceUrl.isEmpty())
            GTEST_SKIP()
                << "needs vantrel-service: the \"service\" fixture sets VANTREL_TEST_SERVICE_URL";
        TempHomeTest::SetUp();
        root = home() + QStringLiteral("/opt/Vantrel");
        qputenv("VANTREL_PREFIX", root.toUtf8());
        // The relaunched copy leaves its parent for a session of its own; as the subreaper of
        // everything started here, the test can still reap it.
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        const QString runtime = home() + QStringLiteral("/run");
        QDir().mkpath(runtime);
        QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv("XDG_RUNTIME_DIR", runtime.toUtf8());
        // Arming is not what this is about, and there is no display to capture.
        QDir().mkpath(configHome() + QStringLiteral("/quillfen"));
        QFile settings(configHome() + QStringLiteral("/quillfen/Vantrel.conf"));
        ASSERT_TRUE(settings.open(QIODevice::WriteOnly));
        settings.write("[General]\narmOnLaunch=false\n");
    }

    void TearDown() override
    {
        for (const pid_t pid : copiesRunning()) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }

    // The processes running the installed copy's program (started by this test: the folder is
    // the test's own).
    QList<pid_t> copiesRunning() const
    {
        QList<pid_t> pids;
        if (root.isEmpty())
            return pids;
        const QString program = root + QStringLiteral("/bin/vantrel");
        const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
        for (const QString &entry : entries) {
            bool number = false;
            const pid_t pid = entry.toInt(&number);
            if (number &&
                QFileInfo(QStringLiteral("/proc/%1/exe").arg(pid)).symLinkTarget() == program)
                pids << pid;
        }
        return pids;
    }

    QString log() const
    {
        return readTextFile(stateHome() + QStringLiteral("/Vantrel/Vantrel.log"));
    }

    QString serviceUrl;
    QString root;
};

TEST_F(UpdateEndToEndTest, ANewerReleaseIsInstalledAtLaunchAndTheNewCopyRuns)
{
    QProcess install;
    install.start(QStringLiteral(VANTREL_BINARY), {QStringLiteral("--install"), oldArchive()});
    ASSERT_TRUE(install.waitForFinished(60000));
    ASSERT_EQ(install.exitCode(), 0) << install.readAllStandardError().toStdString();
    EXPECT_EQ(versionOf(root), "Vantrel 1.1.3");

    ASSERT_EQ(publishNewRelease(), QString());

    QProcess old;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("VANTREL_SERVICE_URL"), serviceUrl);
    environment.insert(QStringLiteral("VANTREL_SERVICE_CA"),
                       qEnvironmentVariable("VANTREL_TEST_SERVICE_CA"));
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    environment.remove(QStringLiteral("DISPLAY"));
    old.setProcessEnvironment(environment);
    old.start(home() + QStringLiteral("/.local/bin/vantrel"), {});
    ASSERT_TRUE(old.waitForStarted());
    const qint64 oldPid = old.processId();
    ASSERT_TRUE(old.waitForFinished(90000)) << log().toStdString();
    EXPECT_EQ(old.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(old.exitCode(), 0);

    // The new copy starts a second after the old one has gone.
    ASSERT_TRUE(QTest::qWaitFor(
        [this] { return log().contains(QStringLiteral("launched version 1.2.0")); }, 30000))
        << log().toStdString();
    const QList<pid_t> running = copiesRunning();
    ASSERT_EQ(running.size(), 1);
    EXPECT_NE(running.first(), oldPid);
    // In a session of its own: it outlives whatever started the old copy.
    EXPECT_EQ(::getsid(running.first()), running.first());
    EXPECT_EQ(versionOf(root), "Vantrel 1.2.0");

    const QString text = log();
    const qsizetype downloading = text.indexOf(QStringLiteral("update status: Downloading 1.2.0…"));
    const qsizetype installing = text.indexOf(QStringLiteral("update status: Installing…"));
    const qsizetype restarting = text.indexOf(QStringLiteral("update status: Restarting…"));
    EXPECT_TRUE(downloading >= 0 && downloading < installing && installing < restarting)
        << text.toStdString();
    EXPECT_EQ(entriesBeside(home() + QStringLiteral("/opt"), QStringLiteral("Vantrel")),
              QStringList());
    EXPECT_EQ(QDir(tempFolder()).entryList({QStringLiteral("Vantrel-update*")}), QStringList());

    // The new copy quits as asked; there was one install.
    ::kill(running.first(), SIGTERM);
    int status = 0;
    EXPECT_EQ(::waitpid(running.first(), &status, 0), running.first());
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(log().count(QStringLiteral("update status: Installing…")), 1);
    EXPECT_EQ(versionOf(root), "Vantrel 1.2.0");
}

} // namespace
