// The client against the real vantrel-service over TLS, trusted through a test certificate:
// a browser sign-in approved on the service's own page, the profile, an upload whose bytes the
// service serves back, a folder link, and a revoked token.

#include "BrowserCatcher.h"
#include "CloudTestSupport.h"
#include "ServiceTestSupport.h"

#include "cloud/AccountStore.h"
#include "cloud/ClipCloud.h"
#include "cloud/SharedNetwork.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QRandomGenerator>
#include <QUrlQuery>

#include <qcoro/qcoronetworkreply.h>

using namespace std::chrono_literals;

namespace {

QCoro::Task<QByteArray> fetch(QNetworkRequest request, QByteArray formBody = {})
{
    QNetworkAccessManager &manager = SharedNetwork::manager();
    std::unique_ptr<QNetworkReply> reply(formBody.isNull() ? manager.get(request)
                                                           : manager.post(request, formBody));
    co_await reply.get();
    const QByteArray body = reply->readAll();
    reply.release()->deleteLater();
    co_return body;
}

// What the user does on the page the program opened: signs in and approves the code.
QCoro::Task<QByteArray> approve(QUrl page, QString email, QString password)
{
    const QString code = QUrlQuery(page).queryItemValue(QStringLiteral("code"));
    QUrlQuery form;
    form.addQueryItem(QStringLiteral("code"), code);
    form.addQueryItem(QStringLiteral("email"), email);
    form.addQueryItem(QStringLiteral("password"), password);
    QNetworkRequest request(page.adjusted(QUrl::RemoveQuery));
    request.setHeader(QNetworkRequest::ContentTypeHeader,
                      QStringLiteral("application/x-www-form-urlencoded"));
    co_return co_await fetch(request, form.toString(QUrl::FullyEncoded).toUtf8());
}

class ServiceFlowTest : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        service = TestService::fromEnvironment();
        if (service.url.isEmpty())
            GTEST_SKIP() << noServiceReason;
    }

    TestService service;
};

} // namespace

TEST_F(ServiceFlowTest, SignInOnTheServicesPageThenShareAClipItServesBack)
{
    service.useInThisProcess();
    const QString email =
        QStringLiteral("flow-%1@example.test").arg(QRandomGenerator::global()->generate());
    ASSERT_TRUE(
        service.addUser(email, QStringLiteral("Flow Tester"), QStringLiteral("pass-word-1")));

    BrowserCatcher browser;
    browser.onOpen = [&](const QUrl &page) { approve(page, email, QStringLiteral("pass-word-1")); };
    AccountStore &account = AccountStore::shared();
    account.setPollTiming(200ms, 90);
    account.beginSignIn();
    ASSERT_TRUE(waitUntil([&] { return !account.isSigningIn(); }, 30000));
    ASSERT_TRUE(account.isSignedIn()) << account.loginMessage().toStdString();
    ASSERT_EQ(browser.opened.size(), 1);
    EXPECT_EQ(browser.opened[0].toString(QUrl::RemoveQuery),
              service.url + QStringLiteral("/device"));
    EXPECT_FALSE(QUrlQuery(browser.opened[0]).queryItemValue(QStringLiteral("code")).isEmpty());
    ASSERT_TRUE(waitUntil([&] { return account.profile().has_value(); }, 10000));
    EXPECT_EQ(account.profile()->name, QStringLiteral("Flow Tester"));
    EXPECT_EQ(account.profile()->email, email);

    // The service checks that an upload is an MP4 it can play, so this is a real one.
    const QString path = home() + QStringLiteral("/Clip 2026-02-03 04-05-06 ABCDEF.mp4");
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"),
                 {QStringLiteral("-nostdin"),
                  QStringLiteral("-v"),
                  QStringLiteral("error"),
                  QStringLiteral("-f"),
                  QStringLiteral("lavfi"),
                  QStringLiteral("-i"),
                  QStringLiteral("testsrc2=size=640x360:rate=30"),
                  QStringLiteral("-f"),
                  QStringLiteral("lavfi"),
                  QStringLiteral("-i"),
                  QStringLiteral("sine=f=440"),
                  QStringLiteral("-t"),
                  QStringLiteral("3"),
                  QStringLiteral("-c:v"),
                  QStringLiteral("libx264"),
                  QStringLiteral("-preset"),
                  QStringLiteral("ultrafast"),
                  QStringLiteral("-c:a"),
                  QStringLiteral("aac"),
                  path});
    ASSERT_TRUE(ffmpeg.waitForFinished(60000) && ffmpeg.exitCode() == 0);
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray bytes = file.readAll();
    const QString token = *account.token();
    const SharedClip shared = await(ClipCloud::upload(QUrl::fromLocalFile(path), token));
    EXPECT_EQ(shared.url.toString(), service.url + QStringLiteral("/c/") + shared.id);
    const QByteArray served = await(
        fetch(QNetworkRequest(QUrl(service.url + QStringLiteral("/files/") + shared.id + ".mp4"))));
    EXPECT_EQ(served.size(), bytes.size());
    EXPECT_TRUE(served == bytes);

    const QUrl pack =
        await(ClipCloud::createPack(QStringLiteral("Vantrel clips"), {shared.id}, token));
    EXPECT_TRUE(pack.toString().startsWith(service.url)) << pack.toString().toStdString();

    // Unknown codes are refused with the service's sentence, not as "nothing yet".
    const Outcome unknown = outcomeOf(ClipCloud::pollDevice(QStringLiteral("no such/code")));
    EXPECT_EQ(unknown.kind, Outcome::Kind::message) << unknown;
}

TEST_F(ServiceFlowTest, ARevokedTokenIsRefusedAndSignsTheUserOut)
{
    service.useInThisProcess();
    const QString email =
        QStringLiteral("revoke-%1@example.test").arg(QRandomGenerator::global()->generate());
    ASSERT_TRUE(service.addUser(email, QStringLiteral("Revoked"), QStringLiteral("pass-word-2")));
    const QString token = service.issueToken(email);
    ASSERT_FALSE(token.isEmpty());

    AccountStore &account = AccountStore::shared();
    account.applyToken(token);
    ASSERT_TRUE(waitUntil([&] { return account.profile().has_value(); }, 10000));
    ASSERT_TRUE(service.revokeToken(token));
    EXPECT_EQ(outcomeOf(ClipCloud::me(token)), Outcome::unauthorized());
    await(account.refresh());
    EXPECT_FALSE(account.isSignedIn());
}

TEST_F(ServiceFlowTest, ACertificateNobodyTrustsIsATransportFailure)
{
    // The service's address, but not its certificate.
    setenv("VANTREL_SERVICE_URL", service.url.toUtf8().constData(), 1);
    unsetenv("VANTREL_SERVICE_CA");
    const Outcome refused = outcomeOf(ClipCloud::createDevice());
    EXPECT_EQ(refused.kind, Outcome::Kind::other) << refused;
    EXPECT_TRUE(refused.text.contains(QStringLiteral("SSL"), Qt::CaseInsensitive)) << refused;
}
