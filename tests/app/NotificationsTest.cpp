// The whole program with a desktop of the test's own on a private session bus: arming and
// saving from the window, the notifications that follow, and their buttons.

#include "app/AppModel.h"
#include "app/AppShell.h"
#include "app/ArmingController.h"
#include "app/ClipLibrary.h"
#include "app/ClipSaver.h"
#include "app/DashboardActions.h"
#include "app/DashboardWindow.h"
#include "app/TrayIcon.h"
#include "engine/ClipEngine.h"
#include "input/PermissionNotifier.h"

#include "support/ChildProcess.h"
#include "support/PrivateBus.h"
#include "support/TestEnvironment.h"
#include "support/WidgetTesting.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLabel>
#include <QPushButton>

namespace {

class NotificationsTest : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        if (qEnvironmentVariableIsEmpty("DISPLAY") || qEnvironmentVariableIsEmpty("PULSE_SERVER"))
            GTEST_SKIP() << "needs the xvfb and pulse fixtures";
        usePrivateRuntime();
        qputenv("VANTREL_SERVICE_URL", "http://127.0.0.1:9");
        writeSettings("armOnLaunch=false\nclipLengthSeconds=15\n");
        bus = std::make_unique<PrivateBus>();
        ASSERT_TRUE(bus->isRunning());
        desktop = std::make_unique<NotificationServer>(bus->address());
        ASSERT_TRUE(desktop->isReady());
        // Catches "open this file" so that no player starts.
        QFile opener(home() + QStringLiteral("/opener"));
        ASSERT_TRUE(opener.open(QIODevice::WriteOnly));
        opener.write("#!/bin/sh\necho \"$1\" >>\"$(dirname \"$0\")/opened\"\n");
        opener.close();
        opener.setPermissions(QFile::ReadOwner | QFile::ExeOwner);
        qputenv("VANTREL_OPEN_COMMAND", opener.fileName().toUtf8());
    }

    QStringList opened() const
    {
        return readTextFile(home() + QStringLiteral("/opened"))
            .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }

    const NotificationServer::Notification *find(const QString &summary)
    {
        for (const auto &notification : desktop->received) {
            if (notification.summary == summary)
                return &notification;
        }
        return nullptr;
    }

    std::unique_ptr<PrivateBus> bus;
    std::unique_ptr<NotificationServer> desktop;
};

} // namespace

TEST_F(NotificationsTest, ASaveFromTheWindowIsAnnouncedWithOpenAndShowInFolder)
{
    // A moving screen, so that the replay fills up and its size can be measured.
    ChildProcess motion({VANTREL_MOTION});
    ASSERT_EQ(motion.readLine(std::chrono::seconds(10)), "ready");
    AppShell shell;
    ASSERT_TRUE(shell.launch({}));
    DashboardWindow *window = shell.window();
    ASSERT_TRUE(waitUntil([window] { return window && window->isVisible(); }));

    clickOn(child<QPushButton>(window, QStringLiteral("arm")));
    ASSERT_TRUE(waitUntil([&] { return shell.model().isClipping(); }, 30000))
        << shell.model().status().toStdString();
    EXPECT_EQ(child<QLabel>(window, QStringLiteral("statePill"))->text(),
              QStringLiteral("Recording"));
    saveScreen(window, QStringLiteral("home-armed-window"));
    ASSERT_TRUE(waitUntil([&] { return shell.engine().buffer().bufferedDuration() > 5.5; }, 30000));
    ASSERT_TRUE(shell.actions()->replayBytesPerSecond().has_value()) << "measured from the buffer";
    EXPECT_GT(*shell.actions()->replayBytesPerSecond(), 1000);

    clickOn(child<QPushButton>(window, QStringLiteral("tabSettings")));
    EXPECT_TRUE(child<QLabel>(window, QStringLiteral("replayMemory"))
                    ->text()
                    .startsWith(QStringLiteral("About ")));
    saveScreen(window, QStringLiteral("settings-armed"));
    clickOn(child<QPushButton>(window, QStringLiteral("tabHome")));

    clickOn(child<QPushButton>(window, QStringLiteral("save")));
    ASSERT_TRUE(waitUntil([&] { return find(QStringLiteral("Clip saved")) != nullptr; }, 60000))
        << shell.model().status().toStdString();
    EXPECT_EQ(shell.model().tab(), AppModel::Tab::library) << "a save shows the Library";
    saveScreen(window, QStringLiteral("library-armed"));
    const auto saved = *find(QStringLiteral("Clip saved"));
    EXPECT_EQ(saved.appName, QStringLiteral("Vantrel"));
    EXPECT_TRUE(saved.body.startsWith(QStringLiteral("Clip ")) && saved.body.endsWith(".mp4"));
    EXPECT_EQ(saved.actions,
              (QStringList {QStringLiteral("open"), QStringLiteral("Open"),
                            QStringLiteral("folder"), QStringLiteral("Show in folder")}));
    const QString path =
        shell.library()
            ->listClips(QFileInfo(shell.model().clips().first().id.toLocalFile()).path())
            .first()
            .id.toLocalFile();
    EXPECT_EQ(QFileInfo(path).fileName(), saved.body);

    desktop->invokeAction(saved.id, QStringLiteral("folder"));
    ASSERT_TRUE(waitUntil([&] { return !desktop->shownItems.isEmpty(); }));
    EXPECT_EQ(desktop->shownItems.first(), QUrl::fromLocalFile(path).toString());
    desktop->invokeAction(saved.id, QStringLiteral("open"));
    ASSERT_TRUE(waitUntil([&] { return !opened().isEmpty(); }));
    EXPECT_EQ(opened().first(), QUrl::fromLocalFile(path).toString(QUrl::FullyEncoded));
    desktop->invokeAction(saved.id + 100, QStringLiteral("open"));
    waitUntil([] { return false; }, 200);
    EXPECT_EQ(opened().size(), 1) << "another program's notification is not ours";

    // A link on the clipboard, a folder link, and an access notice are told the same way.
    const QUrl clip = QUrl::fromLocalFile(path);
    shell.model().setShares({{clip, QStringLiteral("https://vantrel.app/c/1")}});
    shell.model().setPackLink(QStringLiteral("https://vantrel.app/p/2"));
    PermissionNotice notice;
    notice.title = QStringLiteral("Clip key in every app");
    notice.text = QStringLiteral("Add yourself to the input group.");
    PermissionNotifier::instance().post(notice);
    ASSERT_TRUE(waitUntil([&] {
        return find(QStringLiteral("Link copied")) && find(QStringLiteral("Folder link copied")) &&
            find(notice.title);
    })) << desktop->received.size();
    EXPECT_TRUE(find(QStringLiteral("Link copied"))
                    ->body.startsWith(QStringLiteral("https://vantrel.app/c/1")));
    EXPECT_EQ(find(notice.title)->body, notice.text);

    shell.arming()->stop();
    ASSERT_TRUE(waitUntil([&] { return !shell.model().isClipping(); }, 30000));
}
