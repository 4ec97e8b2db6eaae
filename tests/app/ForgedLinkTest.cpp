// What a web page can do with a vantrel:// link, which any page the user visits can open:
// nothing, unless this program itself is waiting on exactly that sign-in, and then only make it
// ask the service at once. The token it keeps is always the service's answer to its own code.

#include "BrowserCatcher.h"
#include "CloudTestSupport.h"
#include "TestServer.h"

#include "app/AppModel.h"
#include "app/ArmingController.h"
#include "app/ClipLibrary.h"
#include "app/ClipSaver.h"
#include "app/LinkRouter.h"
#include "app/ShareActions.h"
#include "cloud/AccountStore.h"
#include "engine/ClipEngine.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QElapsedTimer>

#include <atomic>

using namespace std::chrono_literals;

namespace {

const QString refused = QStringLiteral("A web page tried to sign Vantrel in. Nothing changed.");

class ForgedLink : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        service.http().Post(
            "/v1/auth/device", [this](const httplib::Request &request, httplib::Response &reply) {
                service.record(request);
                reply.set_content(R"({"code":"CODE1","url":")" + service.url().toStdString() +
                                      R"(/device?code=CODE1"})",
                                  "application/json");
            });
        service.http().Get("/v1/auth/device/CODE1",
                           [this](const httplib::Request &request, httplib::Response &reply) {
                               service.record(request);
                               if (approved)
                                   reply.set_content(R"({"token":"tok-from-the-service"})",
                                                     "application/json");
                               else
                                   reply.status = 204;
                           });
        service.answer("GET", "/v1/me", 200, R"({"name":"Ada"})");
        service.start();
    }

    int polls() const
    {
        int count = 0;
        for (const TestServer::Seen &seen : service.seen())
            count += seen.path == "/v1/auth/device/CODE1";
        return count;
    }

    // Whether any request reached the service with `token`.
    bool sent(const std::string &token) const
    {
        for (const TestServer::Seen &seen : service.seen())
            if (seen.header("Authorization") == "Bearer " + token)
                return true;
        return false;
    }

    TestServer service;
    BrowserCatcher browser;
    std::atomic<bool> approved {false};
};

// The pieces of the shell a link reaches, as the program makes them.
struct Shell
{
    AppModel model;
    ClipEngine engine;
    ClipLibrary library {model, QDir::homePath() + QStringLiteral("/Videos/Vantrel")};
    ArmingController arming {engine, model, library};
    ShareActions share {model, library};
    ClipSaver saver {engine, model, library, share};
    LinkRouter router {arming, saver, model};

    void openUrls(const QStringList &links) { router.follow(links); }
};

} // namespace

// No sign-in of the program is waiting: every sign-in link is a web page's doing.
TEST_F(ForgedLink, ATokenLinkSignsNobodyInAndSaysSo)
{
    Shell shell;
    AccountStore &account = AccountStore::shared();
    for (const QString &link : {QStringLiteral("vantrel://auth?token=tok-stranger"),
                                QStringLiteral("VANTREL://AUTH/?token=tok-stranger&token=second"),
                                QStringLiteral("vantrel://auth?code=CODE1&token=tok-stranger"),
                                QStringLiteral("vantrel://auth?code=")}) {
        shell.model.setStatus(QString());
        shell.openUrls(QStringList({link}));
        EXPECT_EQ(shell.model.status(), refused) << link.toStdString();
        EXPECT_FALSE(account.isSignedIn()) << link.toStdString();
    }
    waitUntil([] { return false; }, 200);
    EXPECT_FALSE(sent("tok-stranger"));
    EXPECT_TRUE(browser.opened.isEmpty());
}

// While the program's own sign-in waits, a link with another code (or none) is still refused
// and the sign-in goes on; a link with its code makes it ask at once, and the token kept is the
// one the service hands out for that code, whatever the link carried.
TEST_F(ForgedLink, OnlyTheWaitingSignInsOwnCodeCountsAndItsTokenComesFromTheService)
{
    Shell shell;
    AccountStore &account = AccountStore::shared();
    account.setPollTiming(60s, 90); // only a link makes it ask before a minute is up
    account.beginSignIn();
    ASSERT_TRUE(waitUntil([&] { return account.loginCode() == QStringLiteral("CODE1"); }, 5000));

    approved = true;
    shell.openUrls(QStringList({QStringLiteral("vantrel://auth?code=CODE2&token=tok-stranger"),
                                QStringLiteral("vantrel://auth?token=tok-stranger")}));
    EXPECT_EQ(shell.model.status(), refused);
    EXPECT_TRUE(account.isSigningIn());
    waitUntil([] { return false; }, 200);
    EXPECT_EQ(polls(), 0);
    EXPECT_FALSE(account.isSignedIn());

    QElapsedTimer clock;
    clock.start();
    shell.openUrls(QStringList({QStringLiteral("vantrel://auth?code=CODE1&token=tok-stranger")}));
    EXPECT_EQ(shell.model.status(), QStringLiteral("Finishing sign-in…"));
    ASSERT_TRUE(waitUntil([&] { return !account.isSigningIn(); }, 10000));
    EXPECT_LT(clock.elapsed(), 10000);
    EXPECT_EQ(polls(), 1);
    EXPECT_EQ(account.token(), QStringLiteral("tok-from-the-service"));
    EXPECT_EQ(shell.model.status(), QStringLiteral("Signed in."));

    // The sign-in is over: the same link again is a web page's.
    shell.openUrls(QStringList({QStringLiteral("vantrel://auth?code=CODE1")}));
    EXPECT_EQ(shell.model.status(), refused);
    EXPECT_EQ(account.token(), QStringLiteral("tok-from-the-service"));
    ASSERT_TRUE(waitUntil([&] { return account.profile().has_value(); }, 5000));
    EXPECT_FALSE(sent("tok-stranger"));
}
