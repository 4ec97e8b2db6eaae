// The dashboard over a real model: what each page shows for the model's state, and what a
// click on it does (through the window system's event path, as a user's click arrives).

#include "app/DashboardView.h"
#include "app/AppModel.h"
#include "app/ClipRow.h"
#include "app/SettingsPage.h"
#include "core/ClipSettings.h"
#include "core/Preferences.h"
#include "input/HotkeyManager.h"
#include "input/PermissionTexts.h"

#include "support/TestEnvironment.h"
#include "support/WidgetTesting.h"

#include <QClipboard>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QImage>
#include <QLabel>
#include <QPushButton>
#include <QRegularExpression>

namespace {

ClipFile clipNamed(const QString &name)
{
    return {QUrl::fromLocalFile(QStringLiteral("/videos/") + name), name,
            QDateTime(QDate(2026, 11, 16), QTime(20, 14)), QStringLiteral("12.4 MB")};
}

class DashboardViewTest : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        // Unreachable: the rail keeps its placeholders.
        qputenv("VANTREL_SERVICE_URL", "http://127.0.0.1:9");
        model = std::make_unique<AppModel>();
        DashboardCallbacks callbacks;
        callbacks.onStart = [this] { calls << QStringLiteral("start"); };
        callbacks.onStop = [this] { calls << QStringLiteral("stop"); };
        callbacks.onSaveClip = [this] { calls << QStringLiteral("save"); };
        callbacks.onRefresh = [this] { calls << QStringLiteral("refresh"); };
        callbacks.onReveal = [this] { calls << QStringLiteral("reveal"); };
        callbacks.onShareAll = [this] { calls << QStringLiteral("shareAll"); };
        callbacks.onChangeHotkey = [this] { calls << QStringLiteral("changeHotkey"); };
        callbacks.onOpen = [this](const QUrl &url) {
            calls << QStringLiteral("open ") + url.fileName();
        };
        callbacks.onCopy = [this](const QUrl &url) {
            calls << QStringLiteral("copy ") + url.fileName();
        };
        callbacks.onShare = [this](const QUrl &url) {
            calls << QStringLiteral("share ") + url.fileName();
        };
        callbacks.onDelete = [this](const QUrl &url) {
            calls << QStringLiteral("delete ") + url.fileName();
        };
        callbacks.replayBytesPerSecond = [this] { return rate; };
        callbacks.onTrim = [this](const QUrl &url) {
            calls << QStringLiteral("trim ") + url.fileName();
        };
        callbacks.poster = [this](const QString &clip) {
            asked << QFileInfo(clip).fileName();
            ClipPosters::Poster poster {clip, 65.4, posterImage, {}};
            if (clip.contains(QStringLiteral("bad")))
                poster = {clip, std::nullopt, {}, QStringLiteral("no video track")};
            return QtFuture::makeReadyFuture(poster);
        };
        view = std::make_unique<DashboardView>(*model, callbacks);
        view->resize(900, 600);
        view->show();
        ASSERT_TRUE(waitUntil([this] { return view->isVisible(); }));
    }

    QString text(const QString &name) { return child<QLabel>(view.get(), name)->text(); }
    QPushButton *button(const QString &name, QWidget *root = nullptr)
    {
        return child<QPushButton>(root ? root : view.get(), name);
    }
    void openTab(const QString &tab)
    {
        clickOn(button(tab));
        QCoreApplication::processEvents();
    }

    std::unique_ptr<AppModel> model;
    std::unique_ptr<DashboardView> view;
    QStringList calls;
    QStringList asked; // the clips whose posters were asked for
    QString posterImage;
    std::optional<double> rate;
};

} // namespace

TEST_F(DashboardViewTest, HomeArmButtonStatePillAndMicrophoneFollowTheModel)
{
    EXPECT_EQ(calls.value(0), QStringLiteral("refresh")) << "appearing refreshes the clip list";
    QPushButton *arm = button(QStringLiteral("arm"));
    EXPECT_EQ(arm->text(), QStringLiteral("Arm"));
    EXPECT_EQ(text(QStringLiteral("statePill")), QStringLiteral("Idle"));
    EXPECT_EQ(text(QStringLiteral("status")),
              QStringLiteral("Arm recording, then press your clip key."));
    calls.clear();
    clickOn(arm);
    EXPECT_EQ(calls, QStringList {QStringLiteral("start")});

    model->setIsBusy(true);
    model->setIsClipping(true);
    EXPECT_EQ(arm->text(), QStringLiteral("Starting…"));
    EXPECT_FALSE(arm->isEnabled());
    EXPECT_FALSE(child<QWidget>(view.get(), QStringLiteral("microphone"))->isEnabled());
    model->setIsBusy(false);
    model->setIsSaving(true);
    EXPECT_EQ(arm->text(), QStringLiteral("Saving…"));
    model->setIsSaving(false);
    EXPECT_EQ(arm->text(), QStringLiteral("Stop"));
    EXPECT_EQ(text(QStringLiteral("statePill")), QStringLiteral("Recording"));
    calls.clear();
    clickOn(arm);
    clickOn(button(QStringLiteral("save")));
    EXPECT_EQ(calls, (QStringList {QStringLiteral("stop"), QStringLiteral("save")}));
    saveScreen(view.get(), QStringLiteral("home-armed"));

    model->setIsClipping(false);
    QWidget *mic = child<QWidget>(view.get(), QStringLiteral("microphone"));
    ASSERT_TRUE(mic->isEnabled());
    clickOn(mic);
    EXPECT_TRUE(model->captureMic());
    EXPECT_TRUE(ClipSettings::captureMic());

    // The key notice shows only where the key does not reach other programs.
    EXPECT_TRUE(child<QWidget>(view.get(), QStringLiteral("keyNotice"))->isVisible());
    model->setHotkeyWorksEverywhere(true);
    EXPECT_FALSE(child<QWidget>(view.get(), QStringLiteral("keyNotice"))->isVisible());
}

TEST_F(DashboardViewTest, KeyNoticeOpensAndClosesItsHelpUnderIt)
{
    // A keyboard folder without keyboards: the help is the one that says how to get access.
    const QString input = home() + QStringLiteral("/input");
    ASSERT_TRUE(QDir().mkpath(input));
    qputenv("VANTREL_INPUT_DIR", QFile::encodeName(input));
    struct Restore
    {
        ~Restore() { qunsetenv("VANTREL_INPUT_DIR"); }
    } restore;

    QWidget *notice = child<QWidget>(view.get(), QStringLiteral("keyNotice"));
    auto *help = child<QLabel>(view.get(), QStringLiteral("keyHelp"));
    ASSERT_TRUE(notice && help);
    ASSERT_TRUE(notice->isVisible());
    EXPECT_FALSE(help->isVisible());
    EXPECT_EQ(child<QLabel>(view.get(), QStringLiteral("keyNote"))->text(),
              child<QLabel>(notice, QStringLiteral("keyNoticeText"))->text())
        << "Settings tells the same story as Home";

    clickOn(notice);
    ASSERT_TRUE(help->isVisible());
    // The X paths were retried by the click; the help is worded for what they gave.
    EXPECT_EQ(help->text(),
              PermissionTexts::hotkeyHelp(false, HotkeyManager::shared().x11KeysWork()).text);
    EXPECT_TRUE(help->text().contains(QStringLiteral("usermod -aG input")));
    EXPECT_TRUE(help->wordWrap());
    EXPECT_GE(help->mapTo(view.get(), QPoint()).y(),
              notice->mapTo(view.get(), QPoint(0, notice->height())).y())
        << "under the notice";
    saveScreen(view.get(), QStringLiteral("home-key-help"));

    clickOn(notice);
    EXPECT_FALSE(help->isVisible());
    clickOn(notice);
    EXPECT_TRUE(help->isVisible());
    model->setHotkeyWorksEverywhere(true);
    EXPECT_FALSE(notice->isVisible());
    EXPECT_FALSE(help->isVisible()) << "no help for a key that already works everywhere";
}

TEST_F(DashboardViewTest, ClipLengthChangesTheSaveLabelAndTheSettingAtOnce)
{
    QPushButton *save = button(QStringLiteral("save"));
    EXPECT_EQ(save->text(), QStringLiteral("Save last 30s"));
    clickOn(button(QStringLiteral("length60")));
    EXPECT_EQ(save->text(), QStringLiteral("Save last 60s"));
    EXPECT_EQ(model->clipLength(), 60);
    EXPECT_EQ(Preferences::open()->value(QStringLiteral("clipLengthSeconds")).toInt(), 60);
    EXPECT_EQ(AppModel().clipLength(), 60) << "a new model starts with the stored length";
}

TEST_F(DashboardViewTest, EmptyHomeAndLibraryThenRowsWithTheirActions)
{
    EXPECT_TRUE(child<QWidget>(view.get(), QStringLiteral("homePage"))
                    ->findChildren<QWidget *>(QRegularExpression(QStringLiteral("^clipRow:")))
                    .isEmpty())
        << "no latest clip";
    saveScreen(view.get(), QStringLiteral("home-idle"));
    openTab(QStringLiteral("tabLibrary"));
    EXPECT_EQ(model->tab(), AppModel::Tab::library);
    EXPECT_EQ(text(QStringLiteral("clipCount")), QStringLiteral("No clips yet"));
    EXPECT_EQ(text(QStringLiteral("libraryHint")),
              QStringLiteral("Arm recording, then press F12. Share uploads a link you can paste "
                             "anywhere."));
    saveScreen(view.get(), QStringLiteral("library-empty"));

    model->setClips({clipNamed(QStringLiteral("b.mp4")), clipNamed(QStringLiteral("a.mp4"))});
    EXPECT_EQ(text(QStringLiteral("clipCount")), QStringLiteral("2 clips · full quality"));
    EXPECT_FALSE(child<QWidget>(view.get(), QStringLiteral("libraryHint"))->isVisible());
    QWidget *library = child<QWidget>(view.get(), QStringLiteral("libraryPage"));
    QWidget *row = child<QWidget>(library, QStringLiteral("clipRow:a.mp4"));
    ASSERT_TRUE(waitUntil([row] { return row->isVisible(); }));
    calls.clear();
    clickOn(row, QPoint(4, 4));
    clickOn(button(QStringLiteral("copyFile"), row));
    clickOn(button(QStringLiteral("delete"), row));
    clickOn(button(QStringLiteral("refresh")));
    clickOn(button(QStringLiteral("folder")));
    EXPECT_EQ(calls,
              (QStringList {QStringLiteral("open a.mp4"), QStringLiteral("copy a.mp4"),
                            QStringLiteral("delete a.mp4"), QStringLiteral("refresh"),
                            QStringLiteral("reveal")}));

    // Home's latest clip is the newest.
    openTab(QStringLiteral("tabHome"));
    QWidget *home = child<QWidget>(view.get(), QStringLiteral("homePage"));
    EXPECT_NE(home->findChild<QWidget *>(QStringLiteral("clipRow:b.mp4")), nullptr);
    EXPECT_EQ(home->findChild<QWidget *>(QStringLiteral("clipRow:a.mp4")), nullptr);
}

TEST_F(DashboardViewTest, LibraryRowsAreMadeOnScreenAndAskPostersOnlyWhenDrawn)
{
    QImage red(320, 180, QImage::Format_RGB32);
    red.fill(Qt::red);
    posterImage = home() + QStringLiteral("/poster.jpg");
    ASSERT_TRUE(red.save(posterImage));
    QList<ClipFile> clips;
    for (int i = 0; i < 150; ++i)
        clips << clipNamed(QStringLiteral("%1%2.mp4").arg(i == 1 ? "bad" : "c").arg(i));
    // Home shows only the latest clip: the Library makes no rows while hidden.
    model->setClips(clips);
    QWidget *library = child<QWidget>(view.get(), QStringLiteral("libraryPage"));
    EXPECT_TRUE(library->findChildren<ClipRow *>().isEmpty());
    ASSERT_TRUE(waitUntil([this] { return asked == QStringList {QStringLiteral("c0.mp4")}; }))
        << "Home's latest clip asks for its poster: " << asked.join(',').toStdString();

    openTab(QStringLiteral("tabLibrary"));
    ASSERT_TRUE(waitUntil([&] { return library->findChildren<ClipRow *>().size() == 150; }));
    ASSERT_TRUE(waitUntil([&] { return asked.size() > 3; }));
    QCoreApplication::processEvents();
    // Only the rows in view are drawn, and only they ask.
    EXPECT_LT(asked.size(), 30) << asked.join(',').toStdString();

    QWidget *row = child<QWidget>(library, QStringLiteral("clipRow:c0.mp4"));
    ASSERT_TRUE(
        waitUntil([&] { return child<QLabel>(row, QStringLiteral("clipDuration"))->isVisible(); }));
    EXPECT_EQ(child<QLabel>(row, QStringLiteral("clipDuration"))->text(), QStringLiteral("1:05"));
    const QImage shown = child<QLabel>(row, QStringLiteral("clipPoster"))->pixmap().toImage();
    const QColor middle = shown.pixelColor(shown.rect().center());
    EXPECT_TRUE(middle.red() > 230 && middle.green() < 30 && middle.blue() < 30)
        << "the poster is drawn: " << middle.name().toStdString();
    QWidget *bad = child<QWidget>(library, QStringLiteral("clipRow:bad1.mp4"));
    ASSERT_TRUE(waitUntil(
        [&] { return !child<QLabel>(bad, QStringLiteral("clipPoster"))->toolTip().isEmpty(); }));
    EXPECT_EQ(child<QLabel>(bad, QStringLiteral("clipPoster"))->toolTip(),
              QStringLiteral("No preview: no video track"));
    EXPECT_FALSE(child<QLabel>(bad, QStringLiteral("clipDuration"))->isVisible());
    calls.clear();
    clickOn(button(QStringLiteral("trim"), bad));
    EXPECT_EQ(calls, QStringList {QStringLiteral("trim bad1.mp4")});

    EXPECT_EQ(clipDuration(0.4), QStringLiteral("0:00"));
    EXPECT_EQ(clipDuration(119.6), QStringLiteral("2:00"));
    EXPECT_EQ(clipDuration(3725), QStringLiteral("1:02:05"));
}

TEST_F(DashboardViewTest, SharingStatesPerClipAndForTheFolder)
{
    const ClipFile clip = clipNamed(QStringLiteral("a.mp4"));
    model->setClips({clip});
    openTab(QStringLiteral("tabLibrary"));
    EXPECT_EQ(text(QStringLiteral("clipCount")), QStringLiteral("1 clip · full quality"));
    QWidget *library = child<QWidget>(view.get(), QStringLiteral("libraryPage"));
    QWidget *row = child<QWidget>(library, QStringLiteral("clipRow:a.mp4"));
    ASSERT_TRUE(waitUntil([row] { return row->isVisible(); }));
    EXPECT_FALSE(button(QStringLiteral("copyFolderLink"))->isVisible());
    EXPECT_FALSE(child<QWidget>(view.get(), QStringLiteral("uploadingAll"))->isVisible());

    calls.clear();
    clickOn(button(QStringLiteral("share"), row));
    clickOn(button(QStringLiteral("sendAll")));
    EXPECT_EQ(calls, (QStringList {QStringLiteral("share a.mp4"), QStringLiteral("shareAll")}));

    model->setUploading({clip.id});
    model->setSharingAll(true);
    EXPECT_TRUE(child<QWidget>(row, QStringLiteral("sharing"))->isVisible());
    EXPECT_FALSE(button(QStringLiteral("share"), row)->isVisible());
    EXPECT_TRUE(child<QWidget>(view.get(), QStringLiteral("uploadingAll"))->isVisible());
    saveScreen(view.get(), QStringLiteral("library-sharing"));

    const QString link = QStringLiteral("https://vantrel.app/c/abc123");
    model->setShares({{clip.id, link}});
    model->setUploading({});
    model->setPackLink(QStringLiteral("https://vantrel.app/p/pack1"));
    EXPECT_TRUE(child<QWidget>(view.get(), QStringLiteral("uploadingAll"))->isVisible())
        << "the folder link waits for the run to end";
    EXPECT_FALSE(button(QStringLiteral("copyFolderLink"))->isVisible());
    model->setSharingAll(false);
    EXPECT_FALSE(child<QWidget>(view.get(), QStringLiteral("uploadingAll"))->isVisible());
    saveScreen(view.get(), QStringLiteral("library-shared"));

    clickOn(button(QStringLiteral("copyLink"), row));
    EXPECT_EQ(QGuiApplication::clipboard()->text(), link);
    EXPECT_EQ(model->status(), QStringLiteral("Link copied."));
    clickOn(button(QStringLiteral("copyFolderLink")));
    EXPECT_EQ(QGuiApplication::clipboard()->text(), QStringLiteral("https://vantrel.app/p/pack1"));
    EXPECT_EQ(model->status(), QStringLiteral("Folder link copied."));
}

TEST_F(DashboardViewTest, SettingsKeyCaptureTogglesAndMeasuredMemory)
{
    clickOn(button(QStringLiteral("accountChip")));
    EXPECT_EQ(model->tab(), AppModel::Tab::settings);
    EXPECT_EQ(text(QStringLiteral("keyChip")), QStringLiteral("F12"));
    EXPECT_EQ(button(QStringLiteral("changeKey"))->text(), QStringLiteral("Change"));
    EXPECT_EQ(text(QStringLiteral("keyNote")),
              QStringLiteral("Under Wayland, Vantrel needs to read the keyboard: add yourself to "
                             "the input group, then log in again."));
    saveScreen(view.get(), QStringLiteral("settings-idle"));
    calls.clear();
    clickOn(button(QStringLiteral("changeKey")));
    EXPECT_EQ(calls, QStringList {QStringLiteral("changeHotkey")});
    model->setIsCapturingHotkey(true);
    EXPECT_EQ(text(QStringLiteral("keyChip")), QStringLiteral("Press a key…"));
    EXPECT_EQ(button(QStringLiteral("changeKey"))->text(), QStringLiteral("Cancel"));
    model->setIsCapturingHotkey(false);
    model->setHotkeyWorksEverywhere(true);
    EXPECT_EQ(text(QStringLiteral("keyNote")), QStringLiteral("Works in any app."));

    clickOn(child<QWidget>(view.get(), QStringLiteral("armOnLaunch")));
    EXPECT_FALSE(model->armOnLaunch());
    EXPECT_FALSE(ClipSettings::armOnLaunch());
    model->setIsClipping(true);
    EXPECT_FALSE(child<QWidget>(view.get(), QStringLiteral("recordMicrophone"))->isEnabled());
    // The quality is stored as chosen, for the next arming.
    EXPECT_EQ(ClipSettings::quality(), CaptureQuality::full);
    clickOn(button(QStringLiteral("quality720p60")));
    EXPECT_EQ(ClipSettings::quality(), CaptureQuality::smooth720p60);
    EXPECT_EQ(ClipSettings::quality().maxSide(), 1280);
    clickOn(button(QStringLiteral("quality1080p30")));
    EXPECT_EQ(ClipSettings::quality().fps(), 30);

    // Before anything was measured the line says so; a measured rate is multiplied out for the
    // chosen length, and follows the length.
    EXPECT_TRUE(text(QStringLiteral("replayMemory")).contains(QStringLiteral("measured")));
    rate = 2.25e6;
    model->setClipLength(120);
    EXPECT_EQ(text(QStringLiteral("replayMemory")), QStringLiteral("About 270 MB for 120 s"));
    model->setClipLength(15);
    EXPECT_EQ(text(QStringLiteral("replayMemory")), QStringLiteral("About 34 MB for 15 s"));
    EXPECT_EQ(SettingsPage::memoryText(9e6, 120), QStringLiteral("About 1.1 GB for 120 s"));
}
