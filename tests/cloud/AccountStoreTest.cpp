// The browser sign-in and the profile refresh, against a small service on 127.0.0.1 whose
// answers the test scripts, with short poll intervals (the real ones are 2 s and 90 polls).

#include "BrowserCatcher.h"
#include "CloudTestSupport.h"
#include "TestServer.h"

#include "cloud/AccountStore.h"
#include "cloud/ClipCloud.h"
#include "support/TestEnvironment.h"

#include <atomic>
#include <chrono>
#include <thread>

using namespace std::chrono_literals;

namespace {

class AccountStoreTest : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        server.http().Post("/v1/auth/device",
                           [this](const httplib::Request &request, httplib::Response &response) {
                               server.record(request);
                               const std::string code = "CODE" + std::to_string(++codes);
                               response.set_content(R"({"code":")" + code + R"(","url":")" +
                                                        server.url().toStdString() +
                                                        "/device?code=" + code + "\"}",
                                                    "application/json");
                           });
        server.http().Get(R"(/v1/auth/device/(\w+))",
                          [this](const httplib::Request &request, httplib::Response &response) {
                              server.record(request);
                              const int poll = ++polls;
                              if (poll > pendingPolls) {
                                  response.set_content(R"({"token":"tok-)" +
                                                           request.matches[1].str() + "\"}",
                                                       "application/json");
                              } else {
                                  response.status = 204;
                              }
                          });
        server.http().Get("/v1/me", [this](const httplib::Request &, httplib::Response &response) {
            std::this_thread::sleep_for(std::chrono::milliseconds(meDelayMs));
            response.set_content(R"({"name":"Ada","discord_linked":true})", "application/json");
        });
    }

    int pollsFor(const std::string &code) const
    {
        int count = 0;
        for (const TestServer::Seen &seen : server.seen())
            count += seen.path == "/v1/auth/device/" + code;
        return count;
    }

    TestServer server;
    BrowserCatcher browser;
    std::atomic<int> codes {0};
    std::atomic<int> polls {0};
    std::atomic<int> pendingPolls {1000000};
    std::atomic<int> meDelayMs {0};
};

} // namespace

TEST_F(AccountStoreTest, NinetyPollsAtMostThenATokenSignsInOrTheSignInTimesOut)
{
    server.start();
    AccountStore &account = AccountStore::shared();
    ASSERT_FALSE(account.isSignedIn());
    account.setPollTiming(1ms, 90);

    pendingPolls = 89;
    account.beginSignIn();
    EXPECT_TRUE(account.isSigningIn());
    EXPECT_EQ(account.loginMessage(), QStringLiteral("Opening sign-in…"));
    ASSERT_TRUE(waitUntil([&] { return account.loginCode().has_value(); }, 5000));
    EXPECT_EQ(account.loginCode(), QStringLiteral("CODE1"));
    EXPECT_EQ(account.loginMessage(), QStringLiteral("Finish signing in in your browser."));
    ASSERT_EQ(browser.opened.size(), 1);
    EXPECT_EQ(browser.opened[0], QUrl(server.url() + QStringLiteral("/device?code=CODE1")));

    ASSERT_TRUE(waitUntil([&] { return !account.isSigningIn(); }, 10000));
    EXPECT_EQ(account.token(), QStringLiteral("tok-CODE1"));
    EXPECT_FALSE(account.loginCode().has_value());
    EXPECT_EQ(account.loginMessage(), QString());
    EXPECT_EQ(pollsFor("CODE1"), 90);
    ASSERT_TRUE(waitUntil([&] { return account.profile().has_value(); }, 5000));
    EXPECT_EQ(account.profile()->name, QStringLiteral("Ada"));
    EXPECT_TRUE(account.profile()->discordLinked);

    // Ninety answers without a token: the flow gives up; the code and the earlier sign-in stay.
    polls = 0;
    pendingPolls = 90;
    account.beginSignIn();
    ASSERT_TRUE(waitUntil([&] { return !account.isSigningIn(); }, 10000));
    EXPECT_EQ(account.loginMessage(), QStringLiteral("Sign-in timed out. Try again."));
    EXPECT_EQ(account.loginCode(), QStringLiteral("CODE2"));
    EXPECT_EQ(pollsFor("CODE2"), 90);
    EXPECT_EQ(account.token(), QStringLiteral("tok-CODE1"));
}

TEST_F(AccountStoreTest, ANewSignInOrASignOutEndsTheRunningOneWithoutAWord)
{
    server.start();
    AccountStore &account = AccountStore::shared();
    account.setPollTiming(40ms, 90);

    account.beginSignIn();
    ASSERT_TRUE(waitUntil([&] { return pollsFor("CODE1") >= 2; }, 5000));
    account.beginSignIn(); // pressed again
    ASSERT_TRUE(waitUntil([&] { return pollsFor("CODE2") >= 3; }, 5000));
    const int firstFlowPolls = pollsFor("CODE1");
    ASSERT_TRUE(waitUntil([&] { return pollsFor("CODE2") >= 6; }, 5000));
    EXPECT_EQ(pollsFor("CODE1"), firstFlowPolls); // its polling ended
    EXPECT_EQ(browser.opened.size(), 2);
    EXPECT_EQ(account.loginCode(), QStringLiteral("CODE2"));
    EXPECT_TRUE(account.isSigningIn());

    // Signing out in the middle of a wait: the flow stops and never speaks again.
    int changes = 0;
    account.signOut();
    QObject::connect(&account, &AccountStore::loginMessageChanged, [&] { ++changes; });
    QObject::connect(&account, &AccountStore::isSigningInChanged, [&] { ++changes; });
    QObject::connect(&account, &AccountStore::tokenChanged, [&] { ++changes; });
    EXPECT_FALSE(account.isSigningIn());
    EXPECT_EQ(account.loginMessage(), QString());
    EXPECT_FALSE(account.loginCode().has_value());
    const int pollsAtSignOut = polls;
    waitUntil([] { return false; }, 400);
    EXPECT_EQ(changes, 0);
    EXPECT_LE(polls, pollsAtSignOut + 1); // at most the one already on the wire
}

TEST_F(AccountStoreTest, FailuresOfTheFlowShowTheirTextAndEndIt)
{
    TestServer broken;
    int round = 0;
    broken.http().Post(
        "/v1/auth/device", [&](const httplib::Request &, httplib::Response &response) {
            if (round++ == 0)
                response.set_content(R"({"code":"X1"})", "application/json");
            else
                response.set_content(R"({"code":"X2","url":")" + broken.url().toStdString() +
                                         R"(/device?code=X2"})",
                                     "application/json");
        });
    broken.answer("GET", "/v1/auth/device/X2", 410, R"({"detail":"This code has expired."})");
    broken.start();
    AccountStore &account = AccountStore::shared();
    account.setPollTiming(1ms, 90);

    account.beginSignIn();
    ASSERT_TRUE(waitUntil([&] { return !account.isSigningIn(); }, 5000));
    EXPECT_EQ(account.loginMessage(), QStringLiteral("Could not start sign-in."));
    EXPECT_TRUE(browser.opened.isEmpty());

    account.beginSignIn();
    ASSERT_TRUE(waitUntil([&] { return !account.isSigningIn(); }, 5000));
    EXPECT_EQ(account.loginMessage(), QStringLiteral("This code has expired."));
    EXPECT_EQ(broken.seen().size(), 1u); // no poll is retried
    EXPECT_FALSE(account.isSignedIn());
}

TEST_F(AccountStoreTest, AProfileThatDoesNotComeLeavesTheUserSignedIn)
{
    server.start();
    ClipCloud::setTimeouts(300ms, 300ms);
    AccountStore &account = AccountStore::shared();
    meDelayMs = 1000; // longer than the time-out
    account.applyToken(QStringLiteral("tok-offline"));
    EXPECT_TRUE(account.isSignedIn());
    waitUntil([] { return false; }, 800);
    EXPECT_TRUE(account.isSignedIn());
    EXPECT_FALSE(account.profile().has_value());

    account.openAccountPage();
    ASSERT_EQ(browser.opened.size(), 1);
    EXPECT_EQ(browser.opened[0], QUrl(server.url() + QStringLiteral("/account")));
}
