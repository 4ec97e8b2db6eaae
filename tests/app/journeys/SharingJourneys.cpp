// Journeys of sharing and of the Library's buttons, against the real service: every clip-row
// button (a link kept across a restart included), "Send all", the Library's openers on a desktop
// without a file manager or a player, and signing in through the service's device page in a
// real browser, then out.

#include "Journey.h"

#include "app/AppModel.h"
#include "app/DashboardWindow.h"
#include "cloud/AccountStore.h"

#include "service/HeadlessBrowser.h"
#include "support/WidgetTesting.h"

#include <QClipboard>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QLabel>
#include <QPushButton>
#include <QRandomGenerator>
#include <QTest>
#include <QUrlQuery>

using namespace std::chrono_literals;

namespace {

// Stands in for the desktop's browser: the pages the program opens are caught here.
class PageCatcher : public QObject
{
    Q_OBJECT

public:
    PageCatcher() { QDesktopServices::setUrlHandler(QStringLiteral("https"), this, "open"); }
    ~PageCatcher() override { QDesktopServices::unsetUrlHandler(QStringLiteral("https")); }
    QList<QUrl> pages;

public Q_SLOTS:
    void open(const QUrl &url) { pages << url; }
};

} // namespace

TEST_F(Journey, EveryClipRowButtonWorksAndALinkOutlivesARestart)
{
    signInBeforeLaunch(QStringLiteral("Row Walker"));
    const QString path = makeClip(QStringLiteral("Clip 2030-01-01 10-00-00 row.mp4"));
    const QString name = QFileInfo(path).fileName();
    const QString row = QStringLiteral("clipRow:") + name;
    launch();
    ASSERT_TRUE(waitFor([&] { return AccountStore::shared().profile().has_value(); }));
    click(QStringLiteral("tabLibrary"));
    ASSERT_TRUE(waitForVisible(row));
    QWidget *clip = find(row);
    ASSERT_NE(clip, nullptr);

    // Share: the link on the clipboard, and the row offers to copy it again.
    QPushButton *share = clip->findChild<QPushButton *>(QStringLiteral("share"));
    QTest::mouseClick(share, Qt::LeftButton);
    ASSERT_TRUE(waitForStatus(QStringLiteral("Link copied — paste it anywhere."), 30s))
        << statuses().join(QLatin1Char('|')).toStdString();
    const QString link = shell().model().shares().value(QUrl::fromLocalFile(path));
    ASSERT_TRUE(link.startsWith(service.url + QStringLiteral("/c/"))) << link.toStdString();
    EXPECT_EQ(QString::fromUtf8(clipboard()), link);
    EXPECT_TRUE(fetch(link).contains("Row Walker")) << "the service serves the clip's page";

    // After a restart the clip still has its link.
    quit();
    launch();
    click(QStringLiteral("tabLibrary"));
    ASSERT_TRUE(waitForVisible(row));
    clip = find(row);
    ASSERT_NE(clip, nullptr);
    EXPECT_FALSE(clip->findChild<QWidget *>(QStringLiteral("share"))->isVisible());
    QPushButton *copyLink = clip->findChild<QPushButton *>(QStringLiteral("copyLink"));
    ASSERT_TRUE(copyLink->isVisible());
    QTest::mouseClick(copyLink, Qt::LeftButton);
    EXPECT_EQ(shell().model().status(), QStringLiteral("Link copied."));
    EXPECT_EQ(QString::fromUtf8(clipboard()), link);

    // Copy file: the clipboard offers the file as file managers and chat programs paste it.
    QTest::mouseClick(clip->findChild<QPushButton *>(QStringLiteral("copyFile")), Qt::LeftButton);
    EXPECT_EQ(shell().model().status(), QStringLiteral("Copied %1.").arg(name));
    const QStringList targets = clipboardTargets();
    for (const char *target :
         {"text/uri-list", "x-special/gnome-copied-files", "video/mp4", "UTF8_STRING"})
        EXPECT_TRUE(targets.contains(QLatin1String(target)))
            << target << " in " << targets.join(QLatin1Char(' ')).toStdString();
    const QByteArray fileUrl = QUrl::fromLocalFile(path).toEncoded();
    EXPECT_EQ(clipboard(QStringLiteral("text/uri-list")).trimmed(), fileUrl);
    EXPECT_EQ(clipboard(QStringLiteral("x-special/gnome-copied-files")), "copy\n" + fileUrl);
    EXPECT_EQ(QString::fromUtf8(clipboard()), path);
    // Chat programs that take an attachment only as its contents get the whole file.
    QFile copied(path);
    ASSERT_TRUE(copied.open(QIODevice::ReadOnly));
    const QByteArray bytes = clipboard(QStringLiteral("video/mp4"));
    EXPECT_EQ(bytes.size(), copied.size());
    EXPECT_TRUE(bytes == copied.readAll());

    // Delete: to the Trash, and the link stops working.
    QTest::mouseClick(clip->findChild<QPushButton *>(QStringLiteral("delete")), Qt::LeftButton);
    ASSERT_TRUE(
        waitForStatus(QStringLiteral("Deleted %1. Its link no longer works.").arg(name), 20s))
        << statuses().join(QLatin1Char('|')).toStdString();
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_EQ(window()->findChild<QWidget *>(row), nullptr);
    EXPECT_EQ(fetch(link), QByteArray()) << "the service no longer serves it";
}

TEST_F(Journey, SendAllPutsAFolderLinkThatTheServiceServes)
{
    signInBeforeLaunch(QStringLiteral("Folder Sender"));
    makeClip(QStringLiteral("Clip 2030-01-01 10-00-00 one.mp4"));
    makeClip(QStringLiteral("Clip 2030-01-01 10-00-01 two.mp4"));
    launch();
    ASSERT_TRUE(waitFor([&] { return AccountStore::shared().profile().has_value(); }));
    click(QStringLiteral("tabLibrary"));
    click(QStringLiteral("sendAll"));
    EXPECT_NE(find(QStringLiteral("uploadingAll")), nullptr);
    const QString host = QUrl(service.url).host();
    ASSERT_TRUE(waitForStatus(QStringLiteral("Folder link copied — 2 clips on %1.").arg(host), 60s))
        << statuses().join(QLatin1Char('|')).toStdString();
    const QString pack = QString::fromUtf8(clipboard());
    EXPECT_TRUE(pack.startsWith(service.url + QStringLiteral("/p/"))) << pack.toStdString();
    EXPECT_EQ(pack, shell().model().packLink());
    const QByteArray page = fetch(pack);
    EXPECT_EQ(page.count("href=\"/c/"), 2) << page.toStdString();
    EXPECT_EQ(find<QLabel>(QStringLiteral("libraryStatus"))->text(),
              QStringLiteral("Folder link copied — 2 clips on %1.").arg(host));

    // "Copy folder link" puts it back after something else took the clipboard.
    QGuiApplication::clipboard()->setText(QStringLiteral("something else"));
    click(QStringLiteral("copyFolderLink"));
    EXPECT_EQ(QString::fromUtf8(clipboard()), pack);
}

TEST_F(Journey, OpeningWithoutAFileManagerOrPlayerSaysWhereTheFilesAre)
{
    const QString path = makeClip(QStringLiteral("Clip 2030-01-01 10-00-00 open.mp4"));
    launch();
    click(QStringLiteral("tabLibrary"));
    // This desktop has neither a file manager nor a video player.
    click(QStringLiteral("folder"));
    const QString folderSaid =
        QStringLiteral("No file manager opened the folder. Your clips are in %1").arg(recordings());
    ASSERT_TRUE(waitForStatus(folderSaid, 20s)) << statuses().join(QLatin1Char('|')).toStdString();
    QLabel *line = find<QLabel>(QStringLiteral("libraryStatus"));
    EXPECT_EQ(line->text(), folderSaid) << "said where the button is";
    EXPECT_TRUE(line->textInteractionFlags() & Qt::TextSelectableByMouse)
        << "the path can be copied";
    saveScreen(window(), QStringLiteral("library-no-file-manager"));

    ASSERT_TRUE(waitForVisible(QStringLiteral("clipRow:") + QFileInfo(path).fileName()));
    click(QStringLiteral("clipRow:") + QFileInfo(path).fileName());
    ASSERT_TRUE(
        waitForStatus(QStringLiteral("No video player opened the clip. It is %1").arg(path), 30s))
        << statuses().join(QLatin1Char('|')).toStdString();
}

TEST_F(Journey, SignInThroughTheDevicePageThenSignOut)
{
    const QString email =
        QStringLiteral("device-%1@example.test").arg(QRandomGenerator::global()->generate());
    ASSERT_TRUE(
        service.addUser(email, QStringLiteral("Device Person"), QStringLiteral("pw-device")));
    PageCatcher browserOpens;
    launch();
    click(QStringLiteral("accountChip"));
    EXPECT_EQ(shell().model().tab(), AppModel::Tab::settings);
    click(QStringLiteral("signIn"));
    ASSERT_TRUE(waitFor([&] { return !browserOpens.pages.isEmpty(); }, 20s))
        << "the device page opens in the browser";
    const QUrl page = browserOpens.pages.first();
    const QString code = QUrlQuery(page).queryItemValue(QStringLiteral("code"));
    ASSERT_FALSE(code.isEmpty()) << page.toString().toStdString();
    EXPECT_TRUE(waitFor([&] {
        QLabel *pending = window()->findChild<QLabel *>(QStringLiteral("signInPending"));
        return pending && pending->isVisible() && pending->text().contains(code);
    })) << "the window shows the code the page shows";

    // The user approves in a real browser.
    HeadlessBrowser browser;
    browser.open(page.toString().toStdString());
    browser.evaluate("document.querySelector('input[name=email]').value = '" + email.toStdString() +
                     "'; document.querySelector('input[name=password]').value = 'pw-device'; "
                     "document.querySelector('form').submit(); true");
    ASSERT_TRUE(browser.waitUntil(
        "document.body != null && document.body.innerText.includes('Vantrel is signed in')"));
    // The program, asking the service every two seconds, hears of it by itself.
    ASSERT_TRUE(waitFor(
        [&] {
            return window()->findChild<QPushButton *>(QStringLiteral("accountChip"))->text() ==
                QStringLiteral("Device Person");
        },
        20s))
        << statuses().join(QLatin1Char('|')).toStdString();
    EXPECT_NE(find(QStringLiteral("signOut")), nullptr);
    const QString token = storedToken();
    EXPECT_NE(token, QStringLiteral("none")) << "kept in the secret store";
    EXPECT_EQ(filesHolding(home(), token.toUtf8()), QStringList()) << "and nowhere else";

    click(QStringLiteral("signOut"));
    EXPECT_TRUE(waitFor([&] { return storedToken() == QStringLiteral("none"); }));
    EXPECT_EQ(find<QPushButton>(QStringLiteral("accountChip"))->text(),
              QStringLiteral("Not signed in"));
    EXPECT_NE(find(QStringLiteral("signIn")), nullptr);
}

#include "SharingJourneys.moc"
