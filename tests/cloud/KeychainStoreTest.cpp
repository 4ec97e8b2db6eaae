// The sign-in token in a real Secret Service (gnome-keyring on a private session bus): kept
// across processes, removed on sign-out and on a refused token, and never written anywhere else,
// also when there is no secret store at all.

#include "CloudTestSupport.h"
#include "TestServer.h"

#include "cloud/AccountStore.h"
#include "support/ChildProcess.h"
#include "support/SecretService.h"
#include "support/TestEnvironment.h"

#include <QFile>

#include <fcntl.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

// What another process reads from the secret store: the token, or "none".
std::string storedInAnotherProcess()
{
    ChildProcess probe({VANTREL_KEYCHAIN_PROBE, "load"});
    return probe.readLine(10s).value_or("(no answer)");
}

void saveFromAnotherProcess(const std::string &token)
{
    ChildProcess probe({VANTREL_KEYCHAIN_PROBE, "save", token});
    ASSERT_EQ(probe.readLine(10s), "ok");
}

class KeychainStoreTest : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        server.answer("GET", "/v1/me", 200, R"({"name":"Ada"})");
    }

    TestServer server;
};

} // namespace

TEST_F(KeychainStoreTest, TheTokenLivesInTheSecretStoreAcrossProcessesAndNowhereElse)
{
    SecretService secrets(home().toStdString(), true);
    ASSERT_EQ(secrets.error(), "");
    server.start();
    saveFromAnotherProcess("tok-from-last-run");

    // A returning user is signed in as soon as the store exists.
    AccountStore &account = AccountStore::shared();
    EXPECT_EQ(account.token(), QStringLiteral("tok-from-last-run"));

    const QString secret = QStringLiteral("tok-9f8e7d6c5b4a-secret");
    account.applyToken(secret);
    EXPECT_TRUE(
        waitUntil([] { return storedInAnotherProcess() == "tok-9f8e7d6c5b4a-secret"; }, 10000));
    ASSERT_TRUE(waitUntil([&] { return account.profile().has_value(); }, 5000));
    EXPECT_EQ(filesHolding(home(), secret.toUtf8()), QStringList());

    account.signOut();
    EXPECT_FALSE(account.isSignedIn());
    EXPECT_TRUE(waitUntil([] { return storedInAnotherProcess() == "none"; }, 10000));
}

TEST_F(KeychainStoreTest, ARefusedTokenAtLaunchSignsOutAndForgetsIt)
{
    SecretService secrets(home().toStdString(), true);
    ASSERT_EQ(secrets.error(), "");
    TestServer refusing;
    refusing.answer("GET", "/v1/me", 401, R"({"detail":"Token revoked."})");
    refusing.start();
    saveFromAnotherProcess("tok-revoked");

    AccountStore &account = AccountStore::shared();
    ASSERT_TRUE(account.isSignedIn());
    account.bootstrap();
    ASSERT_TRUE(waitUntil([&] { return !account.isSignedIn(); }, 5000));
    EXPECT_FALSE(account.profile().has_value());
    EXPECT_TRUE(waitUntil([] { return storedInAnotherProcess() == "none"; }, 10000));
}

TEST_F(KeychainStoreTest, WithoutASecretStoreTheSignInLastsThisRunOnlyAndTheLogSaysSoOnce)
{
    SecretService bus(home().toStdString(), false);
    ASSERT_EQ(bus.error(), "");
    server.start();

    // Standard error is the program's system log.
    const QString logPath = home() + QStringLiteral("/stderr.txt");
    const int saved = dup(STDERR_FILENO);
    const int log = ::open(QFile::encodeName(logPath).constData(), O_WRONLY | O_CREAT, 0600);
    dup2(log, STDERR_FILENO);

    AccountStore &account = AccountStore::shared();
    EXPECT_FALSE(account.isSignedIn());
    const QString secret = QStringLiteral("tok-1a2b3c4d-secret");
    account.applyToken(secret);
    EXPECT_TRUE(account.isSignedIn());
    ASSERT_TRUE(waitUntil([&] { return account.profile().has_value(); }, 5000));
    account.applyToken(secret + QStringLiteral("-2"));
    waitUntil([] { return false; }, 300);
    EXPECT_EQ(storedInAnotherProcess(), "none");

    dup2(saved, STDERR_FILENO);
    ::close(saved);
    ::close(log);
    EXPECT_TRUE(account.isSignedIn());
    const QString written = readTextFile(logPath);
    EXPECT_EQ(written.count(QStringLiteral("secret store")), 1) << written.toStdString();
    EXPECT_EQ(filesHolding(home(), secret.toUtf8()), QStringList());
}
