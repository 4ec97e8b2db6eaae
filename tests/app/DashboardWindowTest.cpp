// The dashboard window made by the real shell: one window for the program's life, kept where
// the user left it, with the main menu, hiding on close.

#include "app/DashboardWindow.h"
#include "app/AppModel.h"
#include "app/AppShell.h"
#include "app/ArmingController.h"
#include "app/ClipLibrary.h"
#include "app/ClipSaver.h"
#include "app/DashboardActions.h"
#include "app/DashboardView.h"
#include "app/TrayIcon.h"
#include "core/Preferences.h"

#include "support/TestEnvironment.h"
#include "support/WidgetTesting.h"

#include <QDir>
#include <QFile>
#include <QMenuBar>

namespace {

class DashboardWindowTest : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        if (qEnvironmentVariableIsEmpty("DISPLAY"))
            GTEST_SKIP() << "needs the xvfb fixture";
        usePrivateRuntime();
        qputenv("VANTREL_SERVICE_URL", "http://127.0.0.1:9");
        writeSettings("armOnLaunch=false\n");
    }
};

QStringList menuTitles(const QMenuBar *bar)
{
    QStringList titles;
    for (const QAction *action : bar->actions())
        titles << action->text();
    return titles;
}

} // namespace

TEST_F(DashboardWindowTest, OneWindowKeptWhereTheUserLeftIt)
{
    AppShell shell;
    ASSERT_TRUE(shell.launch({}));
    DashboardWindow *window = shell.window();
    ASSERT_NE(window, nullptr) << "the window opens at launch";
    ASSERT_TRUE(waitUntil([window] { return window->isVisible(); }));
    EXPECT_EQ(window->windowTitle(), QStringLiteral("Vantrel"));
    EXPECT_EQ(window->centralWidget()->size(), QSize(900, 600));
    ASSERT_NE(window->menuBar(), nullptr);
    EXPECT_EQ(
        menuTitles(window->menuBar()),
        (QStringList {QStringLiteral("File"), QStringLiteral("View"), QStringLiteral("Help")}));
    // Centred the first time on the fixture's 1920 × 1080 screen.
    EXPECT_NEAR(window->geometry().center().x(), 960, 2);
    saveScreen(window, QStringLiteral("window-900x600"));

    window->resize(window->minimumSize());
    ASSERT_TRUE(waitUntil([window] { return window->centralWidget()->size() == QSize(760, 480); }))
        << "the smallest window keeps 760 × 480 for the dashboard";
    saveScreen(window, QStringLiteral("window-minimum-760x480"));
    window->resize(1920, 1080);
    ASSERT_TRUE(waitUntil([window] { return window->width() == 1920; }));
    saveScreen(window, QStringLiteral("window-1920x1080"));

    const QRect left(140, 90, 980, 640);
    window->setGeometry(left);
    ASSERT_TRUE(waitUntil([&] { return window->geometry() == left; }));
    window->close();
    ASSERT_TRUE(waitUntil([window] { return !window->isVisible(); }));
    EXPECT_EQ(shell.window(), window) << "closing only hides it";

    shell.showWindow();
    EXPECT_EQ(shell.window(), window);
    ASSERT_TRUE(waitUntil([window] { return window->isVisible(); }));
    EXPECT_EQ(window->geometry(), left);

    // The next launch finds it in the settings store.
    window->close();
    EXPECT_FALSE(Preferences::open()->value(QStringLiteral("VantrelDashboard")).isNull());
    AppModel model;
    DashboardWindow next(new DashboardView(model, {}), nullptr);
    next.bringForward();
    ASSERT_TRUE(waitUntil([&] { return next.isVisible(); }));
    EXPECT_EQ(next.geometry(), left);
}
