// A signed-in user's clip key, end to end: the real program under the fixtures' X and audio
// servers, its token in a real secret store; a web page's vantrel://auth link with a stranger's
// token is refused, F12 puts the clip's link on the X clipboard, and the service serves the very
// bytes of the saved file on the user's own page.

#include "ServiceTestSupport.h"
#include "VantrelProcess.h"

#include "support/SecretService.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QRandomGenerator>
#include <QThread>

using namespace std::chrono_literals;

namespace {

QByteArray fileBytes(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

class EndToEndShare : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        if (qEnvironmentVariableIsEmpty("DISPLAY"))
            GTEST_SKIP() << "needs the xvfb fixture";
        service = TestService::fromEnvironment();
        if (service.url.isEmpty())
            GTEST_SKIP() << noServiceReason;
        QDir().mkpath(configHome() + QStringLiteral("/quillfen"));
        QFile conf(configHome() + QStringLiteral("/quillfen/Vantrel.conf"));
        ASSERT_TRUE(conf.open(QIODevice::WriteOnly));
        conf.write("[General]\nclipLengthSeconds=15\n");
    }

    void prepare(VantrelProcess &app, const SecretService &secrets)
    {
        // The X platform, so the clipboard is the display's and xclip can read it.
        app.setEnv(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        app.setEnv(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
                   QString::fromStdString(secrets.busAddress()));
        app.setEnv(QStringLiteral("VANTREL_SERVICE_URL"), service.url);
        app.setEnv(QStringLiteral("VANTREL_SERVICE_CA"), service.certificate);
    }

    // Presses the clip key and waits for the link; the link, or empty.
    QString pressAndReadLink(VantrelProcess &app)
    {
        const int before = app.countLog(QStringLiteral("status: Link copied — paste it anywhere."));
        QElapsedTimer pressed;
        pressed.start();
        runCommand(QStringLiteral("xdotool"), {QStringLiteral("key"), QStringLiteral("F12")});
        while (app.countLog(QStringLiteral("status: Link copied — paste it anywhere.")) == before) {
            if (pressed.elapsed() > 60000)
                return {};
            QThread::msleep(20);
        }
        std::printf("key press to link on the clipboard: %lld ms\n", pressed.elapsed());
        return runCommand(QStringLiteral("xclip"),
                          {QStringLiteral("-o"), QStringLiteral("-selection"),
                           QStringLiteral("clipboard")})
            .trimmed();
    }

    TestService service;
};

} // namespace

TEST_F(EndToEndShare, SignedInTheClipKeyPutsTheClipsLinkOnTheClipboard)
{
    SecretService secrets(home().toStdString(), true);
    ASSERT_EQ(secrets.error(), "");
    const QString email =
        QStringLiteral("e2e-%1@example.test").arg(QRandomGenerator::global()->generate());
    ASSERT_TRUE(service.addUser(email, QStringLiteral("End To End"), QStringLiteral("pass-e2e")));
    const QString token = service.issueToken(email);
    ASSERT_FALSE(token.isEmpty());
    const QString strangerEmail =
        QStringLiteral("stranger-%1@example.test").arg(QRandomGenerator::global()->generate());
    ASSERT_TRUE(service.addUser(strangerEmail, QStringLiteral("Stranger Danger"),
                                QStringLiteral("pass-stranger")));
    const QString strangerToken = service.issueToken(strangerEmail);
    ASSERT_FALSE(strangerToken.isEmpty());
    // The user signed in on an earlier run: the token waits in the secret store.
    EXPECT_EQ(runCommand(QStringLiteral(VANTREL_KEYCHAIN_PROBE), {QStringLiteral("save"), token})
                  .trimmed(),
              QStringLiteral("ok"));

    {
        VantrelProcess app(home());
        prepare(app, secrets);
        app.start();
        ASSERT_TRUE(app.waitForLog(QStringLiteral("startCapture ok"), 20s))
            << app.logSinceStart().toStdString();
        // A web page the user visits opens a sign-in link for its own account.
        EXPECT_EQ(app.launchAgain({QStringLiteral("vantrel://auth?token=") + strangerToken}), 0);
        ASSERT_TRUE(app.waitForLog(
            QStringLiteral("status: A web page tried to sign Vantrel in. Nothing changed."), 10s));
        QThread::sleep(3);

        const QString link = pressAndReadLink(app);
        ASSERT_TRUE(link.startsWith(service.url + QStringLiteral("/c/")))
            << link.toStdString() << app.logSinceStart().toStdString();
        const QStringList clips =
            QDir(app.recordings()).entryList({QStringLiteral("Clip *.mp4")}, QDir::Files);
        ASSERT_EQ(clips.size(), 1);
        const QString id = link.mid(link.lastIndexOf(QLatin1Char('/')) + 1);
        const QString served = home() + QStringLiteral("/served.mp4");
        runCommand(QStringLiteral("curl"),
                   {QStringLiteral("-sSf"), QStringLiteral("--cacert"), service.certificate,
                    QStringLiteral("-o"), served,
                    service.url + QStringLiteral("/files/") + id + QStringLiteral(".mp4")});
        const QByteArray saved = fileBytes(app.recordings() + QLatin1Char('/') + clips[0]);
        EXPECT_GT(saved.size(), 10000);
        EXPECT_TRUE(fileBytes(served) == saved);
        // The clip went to the user's own account, not the stranger's.
        const QString page = runCommand(
            QStringLiteral("curl"),
            {QStringLiteral("-sSf"), QStringLiteral("--cacert"), service.certificate, link});
        EXPECT_TRUE(page.contains(QStringLiteral("End To End"))) << page.toStdString();
        EXPECT_FALSE(page.contains(QStringLiteral("Stranger"))) << page.toStdString();

        EXPECT_FALSE(app.output().contains(token));
        EXPECT_FALSE(app.output().contains(strangerToken));
        EXPECT_TRUE(app.terminate(10s));
    }

    // The next launch is still signed in: the token came back from the secret store.
    {
        VantrelProcess app(home());
        prepare(app, secrets);
        app.start();
        ASSERT_TRUE(app.waitForLog(QStringLiteral("startCapture ok"), 20s));
        QThread::sleep(3);
        EXPECT_TRUE(pressAndReadLink(app).startsWith(service.url + QStringLiteral("/c/")))
            << app.logSinceStart().toStdString();
        EXPECT_FALSE(app.output().contains(token));
        EXPECT_TRUE(app.terminate(10s));
    }
    // Only the secret store holds the token, and it holds it encrypted.
    EXPECT_EQ(filesHolding(home(), token.toUtf8()), QStringList());
}
