// Journeys of the shell around the pages: the update badge and sheet (on a copy that cannot update
// itself, and on an installed copy that updates to the new version running), the tray's menu,
// the window's menus, and every tab at 900 × 600 and at the smallest size, nothing cut off.

#include "Journey.h"

#include "app/AppModel.h"
#include "app/ArmingController.h"
#include "app/DashboardWindow.h"
#include "app/TrayIcon.h"
#include "cloud/AccountStore.h"
#include "engine/ClipEngine.h"
#include "update/UpdateStore.h"

#include "support/WidgetTesting.h"
#include "update/UpdateTestSupport.h"

#include <QAbstractScrollArea>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QProcess>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QSystemTrayIcon>
#include <QTest>
#include <QTimer>

#include <csignal>
#include <sys/prctl.h>
#include <sys/wait.h>

using namespace std::chrono_literals;

namespace {

} // namespace

TEST_F(Journey, TheUpdateBadgeOpensTheSheetWhichSaysWhyThisCopyCannotUpdate)
{
    ASSERT_EQ(publishNewRelease(), QString());
    launch();
    QPushButton *badge = nullptr;
    ASSERT_TRUE(waitFor(
        [&] {
            badge = window()->findChild<QPushButton *>(QStringLiteral("updateBadge"));
            return badge && badge->isVisible();
        },
        20s))
        << "the check at launch finds the newer release";
    EXPECT_EQ(badge->text(), QStringLiteral("Update available"));
    saveScreen(window(), QStringLiteral("update-badge"));
    // Top right of the window, above the sponsored rail rather than in its header.
    const QRect place(badge->mapTo(window(), QPoint()), badge->size());
    EXPECT_GT(place.right(), window()->width() - 30);
    EXPECT_LT(place.top(), 70);
    QWidget *rail = find(QStringLiteral("sponsoredRail"));
    EXPECT_GE(rail->mapTo(window(), QPoint()).y(), place.bottom());

    click(QStringLiteral("updateBadge"));
    ASSERT_TRUE(waitFor([&] { return UpdateStore::shared().showSheet(); }));
    QLabel *why = find<QLabel>(QStringLiteral("cannotUpdate"));
    ASSERT_NE(why, nullptr);
    EXPECT_EQ(why->text(),
              QStringLiteral("This copy of Vantrel is not the installed release; "
                             "update it the way you installed it."));
    EXPECT_TRUE(window()->findChild<QWidget *>(QStringLiteral("updateInstall"))->isHidden())
        << "no button that cannot work";
    saveScreen(window(), QStringLiteral("update-sheet-build-copy"));
    click(QStringLiteral("updateLater"));
    EXPECT_TRUE(waitFor([&] { return !UpdateStore::shared().showSheet(); }));
    EXPECT_TRUE(badge->isVisible()) << "the release is still there for later";
}

// The window's half of the update journey runs in a child process (the copy that is replaced):
// it quits once the update is in, and the new copy starts only after it has gone.
TEST_F(Journey, UpdateOnAnInstalledCopyRunsTheNewVersion)
{
    const QString root = home() + QStringLiteral("/opt/Vantrel");
    if (qEnvironmentVariableIsSet("VANTREL_JOURNEY_UPDATE_WINDOW")) {
        UpdateStore::shared().setInstalledRoot(root);
        UpdateStore::shared().setRelaunchDelay(100ms);
        launch();
        ASSERT_TRUE(waitFor(
            [&] {
                auto *badge = window()->findChild<QPushButton *>(QStringLiteral("updateBadge"));
                return badge && badge->isVisible();
            },
            20s));
        click(QStringLiteral("updateBadge"));
        ASSERT_TRUE(waitFor([&] { return UpdateStore::shared().showSheet(); }));
        EXPECT_EQ(find<QPushButton>(QStringLiteral("updateInstall"))->text(),
                  QStringLiteral("Update"));
        click(QStringLiteral("updateInstall"));
        ASSERT_TRUE(waitFor([] { return UpdateStore::shared().status() == "Restarting…"; }, 60s))
            << UpdateStore::shared().status().toStdString();
        return; // this process ends, as the program's Quit would end it
    }
    // The relaunched copy leaves for a session of its own; as the subreaper of everything started
    // here, the test can still reap it.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    QProcess install;
    install.start(QStringLiteral(VANTREL_BINARY), {QStringLiteral("--install"), oldArchive()});
    ASSERT_TRUE(install.waitForFinished(60000));
    ASSERT_EQ(install.exitCode(), 0) << install.readAllStandardError().toStdString();
    ASSERT_EQ(publishNewRelease(), QString());

    QProcess windowHalf;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("VANTREL_JOURNEY_UPDATE_WINDOW"), QStringLiteral("1"));
    environment.insert(QStringLiteral("VANTREL_JOURNEY_HOME"), home());
    windowHalf.setProcessEnvironment(environment);
    windowHalf.setProcessChannelMode(QProcess::ForwardedChannels);
    windowHalf.start(
        QCoreApplication::applicationFilePath(),
        {QStringLiteral("--gtest_filter=Journey.UpdateOnAnInstalledCopyRunsTheNewVersion")});
    ASSERT_TRUE(windowHalf.waitForFinished(120000));
    ASSERT_EQ(windowHalf.exitCode(), 0) << "the window's half failed";

    const QString log = stateHome() + QStringLiteral("/Vantrel/Vantrel.log");
    ASSERT_TRUE(waitFor([&] { return readTextFile(log).contains("launched version 1.2.0"); }, 30s))
        << readTextFile(log).toStdString();
    EXPECT_EQ(
        QString::fromUtf8(run(root + QStringLiteral("/bin/vantrel"), {QStringLiteral("--version")}))
            .trimmed(),
        QStringLiteral("Vantrel 1.2.0"));
    // The new copy quits as asked.
    const QStringList pids =
        QString::fromUtf8(run(QStringLiteral("pgrep"),
                              {QStringLiteral("-f"), root + QStringLiteral("/bin/vantrel")}))
            .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    ASSERT_EQ(pids.size(), 1);
    const pid_t pid = pids[0].toInt();
    ::kill(pid, SIGTERM);
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(Journey, TheTrayMenuArmsSavesStopsOpensAndQuits)
{
    launch();
    QMenu *menu = shell().tray()->menu();
    const auto openMenu = [&] { return openTrayMenu(); };

    ASSERT_TRUE(openMenu());
    pickFromMenu(menu, QStringLiteral("Arm Recording"));
    ASSERT_TRUE(waitFor([&] { return shell().model().isClipping(); }, 30s));
    ASSERT_TRUE(waitFor([&] { return shell().engine().bufferedDuration() >= 2; }, 30s));
    ASSERT_TRUE(openMenu());
    pickFromMenu(menu, QStringLiteral("Save Clip  F12"));
    ASSERT_TRUE(waitForStatus(QStringLiteral("Saved. Sign in to share a link."), 30s))
        << statuses().join(QLatin1Char('|')).toStdString();
    ASSERT_TRUE(openMenu());
    pickFromMenu(menu, QStringLiteral("Stop Recording"));
    ASSERT_TRUE(waitForStatus(QStringLiteral("Saved Session "), 20s, true));

    window()->close();
    ASSERT_TRUE(waitFor([&] { return !window()->isVisible(); }));
    ASSERT_TRUE(openMenu());
    pickFromMenu(menu, QStringLiteral("Open Vantrel"));
    EXPECT_TRUE(waitFor([&] { return window()->isVisible(); }));
    ASSERT_TRUE(openMenu());
    pickFromMenu(menu, QStringLiteral("Open Recordings"));
    EXPECT_TRUE(waitForStatus(QStringLiteral("No file manager opened the folder. Your clips are "
                                             "in %1")
                                  .arg(recordings()),
                              20s));

    bool quitting = false;
    QObject::connect(qApp, &QCoreApplication::aboutToQuit, [&] { quitting = true; });
    ASSERT_TRUE(openMenu());
    QTimer::singleShot(0, [&] { pickFromMenu(menu, QStringLiteral("Quit Vantrel")); });
    QTimer::singleShot(10000, [] { QCoreApplication::exit(1); }); // a Quit that does nothing
    EXPECT_EQ(QCoreApplication::exec(), 0);
    EXPECT_TRUE(quitting);
}

TEST_F(Journey, TheWindowsMenusHoldOnlyWhatWorks)
{
    launch();
    QMenuBar *bar = shell().mainMenu();
    QStringList titles;
    for (const QAction *action : bar->actions())
        titles << action->text();
    EXPECT_EQ(titles, (QStringList {"File", "View", "Help"}));
    EXPECT_TRUE(bar->styleSheet().contains(QStringLiteral("QMenu {"))) << "dark, like the window";

    // The keys of the View menu, pressed on the window.
    press(QStringLiteral("ctrl+2"));
    EXPECT_TRUE(waitFor([&] { return shell().model().tab() == AppModel::Tab::library; }));
    press(QStringLiteral("ctrl+3"));
    EXPECT_TRUE(waitFor([&] { return shell().model().tab() == AppModel::Tab::settings; }));
    press(QStringLiteral("ctrl+1"));
    EXPECT_TRUE(waitFor([&] { return shell().model().tab() == AppModel::Tab::home; }));

    // Help, About Vantrel, from the menu as it opens.
    QMenu *help = bar->actions()[2]->menu();
    bar->setActiveAction(bar->actions()[2]);
    ASSERT_TRUE(waitFor([&] { return help->isVisible(); }));
    saveScreen(help, QStringLiteral("menu-help"));
    pickFromMenu(help, QStringLiteral("About Vantrel"));
    QWidget *about = nullptr;
    ASSERT_TRUE(waitFor([&] {
        about = window()->findChild<QWidget *>(QStringLiteral("about"));
        return about && about->isVisible();
    }));
    saveScreen(about, QStringLiteral("about"));
    about->close();

    // File, Close Window, by its key: the window goes, Vantrel stays.
    press(QStringLiteral("ctrl+w"));
    EXPECT_TRUE(waitFor([&] { return !window()->isVisible(); }));
    EXPECT_NE(shell().tray(), nullptr);
}

// Every tab at the first size and at the smallest: every button and line fits inside its page,
// so nothing is cut off at the right edge (the pages scroll up and down, never sideways).
TEST_F(Journey, EveryTabFitsAt900x600AndAtTheSmallestSize)
{
    signInBeforeLaunch(QStringLiteral("Sizes Of Everything"));
    makeClip(QStringLiteral("Clip 2030-01-01 10-00-00 a rather long name for a clip.mp4"));
    launch();
    ASSERT_TRUE(waitFor([&] { return AccountStore::shared().profile().has_value(); }));
    auto *dashboard = static_cast<DashboardWindow *>(window());
    const auto checkTab = [&](AppModel::Tab tab, const QString &name) {
        shell().model().setTab(tab);
        waitFor([] { return false; }, 200ms);
        saveScreen(window(), name);
        for (auto *area : window()->findChildren<QScrollArea *>()) {
            if (!area->isVisible())
                continue;
            const QRect viewport = area->viewport()->rect();
            for (QWidget *piece : area->widget()->findChildren<QWidget *>()) {
                if (!piece->isVisible() ||
                    !(qobject_cast<QPushButton *>(piece) || qobject_cast<QLabel *>(piece)))
                    continue;
                const QRect at(piece->mapTo(area->viewport(), QPoint()), piece->size());
                EXPECT_LE(at.right(), viewport.right())
                    << name.toStdString() << ": " << piece->objectName().toStdString() << " '"
                    << (qobject_cast<QPushButton *>(piece)
                            ? qobject_cast<QPushButton *>(piece)->text().toStdString()
                            : qobject_cast<QLabel *>(piece)->text().left(40).toStdString())
                    << "' is cut off";
            }
        }
    };
    EXPECT_EQ(dashboard->centralWidget()->size(), QSize(900, 600));
    for (const auto &[size, suffix] :
         {std::pair {QSize(900, 600), QStringLiteral("900x600")},
          std::pair {DashboardWindow::minimumContentSize, QStringLiteral("minimum")}}) {
        dashboard->resize(size + QSize(0, dashboard->menuBar()->height()));
        ASSERT_TRUE(waitFor([&] { return dashboard->centralWidget()->size() == size; }));
        checkTab(AppModel::Tab::home, QStringLiteral("home-") + suffix);
        checkTab(AppModel::Tab::library, QStringLiteral("library-") + suffix);
        checkTab(AppModel::Tab::settings, QStringLiteral("settings-") + suffix);
        // The end of the page, where the account's buttons are.
        auto *scroll = window()->findChild<QScrollArea *>(QStringLiteral("settingsPageScroll"));
        scroll->verticalScrollBar()->setValue(scroll->verticalScrollBar()->maximum());
        saveScreen(window(), QStringLiteral("settings-end-") + suffix);
        EXPECT_TRUE(waitForVisible(QStringLiteral("signOut")));
    }
}
