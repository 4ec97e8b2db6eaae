// The window's account area over the real service, and the update badge and sheet over a release
// the version call announces.

#include "app/AccountPanel.h"
#include "app/DashboardSidebar.h"
#include "app/UpdatePanel.h"
#include "cloud/AccountStore.h"
#include "promo/AdsStore.h"
#include "promo/RailCard.h"
#include "promo/SponsoredRail.h"
#include "update/UpdateStore.h"

#include "BrowserCatcher.h"
#include "cloud/ServiceTestSupport.h"
#include "support/LocalHttpServer.h"
#include "support/TestEnvironment.h"
#include "support/WidgetTesting.h"

#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace {

class DashboardAccountTest : public TempHomeTest
{
};

bool shown(QWidget *root, const QString &name)
{
    auto *widget = root->findChild<QWidget *>(name);
    return widget && widget->isVisible();
}

bool showsText(QWidget *root, const QString &text)
{
    for (QLabel *label : root->findChildren<QLabel *>())
        if (label->isVisible() && label->text().contains(text))
            return true;
    return false;
}

// The dashboard's own background, so a picture shows a piece as the window does.
void paintDashboardBackground(QWidget &window)
{
    QPalette dark = window.palette();
    dark.setColor(QPalette::Window, QColor(18, 18, 22));
    window.setPalette(dark);
    window.setAutoFillBackground(true);
}

} // namespace

TEST_F(DashboardAccountTest, SignedOutSignsInByTokenShowsTheProfileAndSignsOut)
{
    const TestService service = TestService::fromEnvironment();
    if (service.url.isEmpty())
        GTEST_SKIP() << noServiceReason;
    service.useInThisProcess();
    ASSERT_TRUE(service.addUser(QStringLiteral("panel@example.org"), QStringLiteral("Panel Kit"),
                                QStringLiteral("correct horse")));
    const QString token = service.issueToken(QStringLiteral("panel@example.org"));
    ASSERT_FALSE(token.isEmpty());

    AccountStore &account = AccountStore::shared();
    QWidget window;
    paintDashboardBackground(window);
    auto *column = new QVBoxLayout(&window);
    auto *panel = new AccountPanel(account, &window);
    column->addWidget(panel);
    window.resize(500, 300);
    window.show();
    ASSERT_TRUE(waitUntil([&] { return window.isVisible(); }));

    EXPECT_TRUE(shown(panel, QStringLiteral("signIn")));
    EXPECT_FALSE(shown(panel, QStringLiteral("signOut")));
    EXPECT_TRUE(showsText(panel, QStringLiteral("Sign in to share clips")));
    saveScreen(&window, QStringLiteral("account-signed-out"));

    account.applyToken(token);
    ASSERT_TRUE(waitUntil([&] { return showsText(panel, QStringLiteral("Panel Kit")); }, 10000))
        << "the profile fetched from the service";
    EXPECT_TRUE(showsText(panel, QStringLiteral("panel@example.org")));
    EXPECT_TRUE(showsText(panel, QStringLiteral("Code ")));
    EXPECT_FALSE(showsText(panel, QStringLiteral("Discord connected")))
        << "the service does not link Discord";
    EXPECT_FALSE(shown(panel, QStringLiteral("signIn")));
    saveScreen(&window, QStringLiteral("account-signed-in"));

    clickOn(child<QPushButton>(panel, QStringLiteral("signOut")));
    ASSERT_TRUE(waitUntil([&] { return shown(panel, QStringLiteral("signIn")); }));
    EXPECT_FALSE(showsText(panel, QStringLiteral("Panel Kit")));
    EXPECT_FALSE(account.isSignedIn());

    // Signing in again through the browser: the service's code waits under the button.
    BrowserCatcher browser;
    clickOn(child<QPushButton>(panel, QStringLiteral("signIn")));
    ASSERT_TRUE(waitUntil([&] { return !account.loginCodeText().isEmpty(); }, 10000));
    EXPECT_TRUE(showsText(panel, QStringLiteral("Code ") + account.loginCodeText()));
    EXPECT_TRUE(showsText(panel, QStringLiteral("Finish signing in in your browser.")));
    EXPECT_EQ(browser.opened.size(), 1);
    saveScreen(&window, QStringLiteral("account-signed-out-pending"));
    account.signOut();
    EXPECT_FALSE(showsText(panel, QStringLiteral("Finish signing in"))) << "signing out drops it";
}

TEST_F(DashboardAccountTest, TheRailShowsTheServicesSponsorCards)
{
    const TestService service = TestService::fromEnvironment();
    if (service.url.isEmpty())
        GTEST_SKIP() << noServiceReason;
    service.useInThisProcess();
    ASSERT_TRUE(service.setAds(R"({"slots":[
        {"id":"n","name":"Nimbus","line":"Fast builds for game clips"},
        {"id":"o","name":"Orbit Hosting","line":"Share highlights at full quality"}]})"));
    // Other tests expect the fixture's service without cards.
    struct Restore
    {
        const TestService &service;
        ~Restore() { service.setAds(R"({"slots":[]})"); }
    } restore {service};

    QWidget window;
    paintDashboardBackground(window);
    auto *column = new QVBoxLayout(&window);
    column->setContentsMargins(0, 0, 0, 0);
    AdsStore ads;
    auto *rail = new SponsoredRail(ads, &window);
    column->addWidget(rail);
    window.resize(204, 600);
    window.show();
    ASSERT_TRUE(waitUntil([&] { return window.isVisible(); }));
    saveScreen(&window, QStringLiteral("rail-placeholders-service"));

    ads.refresh();
    ASSERT_TRUE(waitUntil([&] { return ads.slotList().size() == 2; }, 10000))
        << "the cards from the service";
    EXPECT_EQ(ads.slotList()[0].name, QStringLiteral("Nimbus"));
    EXPECT_EQ(ads.slotList()[1].line, QStringLiteral("Share highlights at full quality"));
    ASSERT_EQ(rail->cards().size(), 2);
    saveScreen(&window, QStringLiteral("rail-cards-service"));
}

TEST_F(DashboardAccountTest, ANewerReleaseShowsTheBadgeWhichOpensTheSheetUntilLater)
{
    LocalHttpServer server;
    server.set(
        QStringLiteral("/v1/version"),
        {200, "application/json",
         R"({"version":"99.0.0","notes":"","linux_url":"/download/x.tar.gz","linux_sig":""})"});
    qputenv("VANTREL_SERVICE_URL", server.url().toString().toUtf8());

    UpdateStore &updates = UpdateStore::shared();
    QWidget window;
    window.resize(600, 400);
    auto *badge = new UpdateBadge(updates, &window);
    auto *sheet = new UpdateSheet(updates, &window);
    sheet->setGeometry(window.rect());
    window.show();
    ASSERT_TRUE(waitUntil([&] { return window.isVisible(); }));
    EXPECT_FALSE(badge->isVisible()) << "nothing known yet";
    EXPECT_FALSE(sheet->isVisible());

    updates.refresh();
    ASSERT_TRUE(waitUntil([&] { return badge->isVisible(); }, 10000));
    EXPECT_EQ(badge->toolTip(), QStringLiteral("Update Available"));
    EXPECT_FALSE(sheet->isVisible()) << "the badge asks first";

    clickOn(badge);
    ASSERT_TRUE(waitUntil([&] { return sheet->isVisible(); }));
    EXPECT_TRUE(showsText(sheet, QStringLiteral("Version 99.0.0")));
    EXPECT_TRUE(showsText(sheet, QStringLiteral("Bug fixes and improvements.")))
        << "empty notes read as the default line";
    EXPECT_EQ(child<QPushButton>(sheet, QStringLiteral("updateInstall"))->text(),
              QStringLiteral("Update"));
    saveScreen(&window, QStringLiteral("update-sheet"));

    clickOn(child<QPushButton>(sheet, QStringLiteral("updateLater")));
    EXPECT_TRUE(waitUntil([&] { return !sheet->isVisible(); }));
    EXPECT_FALSE(updates.showSheet());
    EXPECT_TRUE(badge->isVisible()) << "the release is still there for later";
}
