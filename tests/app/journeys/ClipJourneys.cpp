// Journeys with clips beyond the clip key: a key per length and the tray's lengths, clearing the
// replay after a save, the Library's posters filling in while the window stays responsive, and a
// frame-accurate trim made from the window.

#include "Journey.h"

#include "app/AppModel.h"
#include "app/ClipRow.h"
#include "app/TrayIcon.h"
#include "app/TrimPage.h"
#include "core/ClipSettings.h"
#include "engine/ClipEngine.h"

#include "support/MediaProbe.h"
#include "support/WidgetTesting.h"

#include <QAction>
#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QLabel>
#include <QProcess>
#include <QPushButton>
#include <QRegion>
#include <QRegularExpression>
#include <QScrollArea>
#include <QScrollBar>
#include <QSlider>
#include <QTest>
#include <QTimer>

#include <algorithm>
#include <ctime>

using namespace std::chrono_literals;

namespace {

QStringList clipsIn(const QString &folder)
{
    return QDir(folder).entryList({QStringLiteral("Clip *.mp4")}, QDir::Files, QDir::Name);
}

// Scrolls the page holding `widget` until it is in view, `below` pixels clear of the bottom.
void scrollIntoView(QWidget *widget, int below)
{
    for (QWidget *parent = widget ? widget->parentWidget() : nullptr; parent;
         parent = parent->parentWidget()) {
        if (auto *area = qobject_cast<QScrollArea *>(parent)) {
            area->ensureWidgetVisible(widget, 0, below);
            return;
        }
    }
}

// What of a clip row overlaps its poster or another button, or runs out of the card: their
// names.
QStringList overlapsInRow(QWidget *row)
{
    QStringList wrong;
    const auto rectIn = [row](QWidget *widget) {
        return QRect(widget->mapTo(row, QPoint()), widget->size());
    };
    QWidget *poster = row->findChild<QWidget *>(QStringLiteral("clipPoster"));
    if (!row->rect().contains(rectIn(poster)))
        wrong << QStringLiteral("poster");
    QRegion taken = rectIn(poster);
    for (const char *name : {"share", "copyLink", "trim", "copyFile", "delete"}) {
        QWidget *button = row->findChild<QWidget *>(QLatin1String(name));
        if (!button || !button->isVisible())
            continue;
        if (taken.intersects(rectIn(button)) || !row->rect().contains(rectIn(button)))
            wrong << QLatin1String(name);
        taken += rectIn(button);
    }
    return wrong;
}

QByteArray digest(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QCryptographicHash hash(QCryptographicHash::Sha256);
    hash.addData(&file);
    return hash.result();
}

} // namespace

TEST_F(Journey, EachLengthHasAKeyAndATrayItemThatSaveIt)
{
    writeSettings("clipLengthSeconds=15\narmOnLaunch=true\n");
    launch();
    // Armed first: the arming's own sentences would take the status line meanwhile.
    ASSERT_TRUE(waitFor([&] { return shell().model().isClipping(); }, 30s));
    click(QStringLiteral("tabSettings"));
    // Said at some point: a sentence about the capture falling behind may follow at once.
    const auto said = [&](const QString &text) {
        return waitFor([&] { return statuses().contains(text); }, 10s);
    };
    const auto chip = [&](int seconds) {
        return find<QLabel>(QStringLiteral("lengthKeyChip%1").arg(seconds))->text();
    };
    EXPECT_EQ(chip(30), QStringLiteral("None"));
    EXPECT_EQ(find<QPushButton>(QStringLiteral("lengthKey30"))->text(), QStringLiteral("Set"));

    // A capture's presses reach every key path; none of them saves a clip: not the clip key,
    // refused for a length, nor the key just bound.
    click(QStringLiteral("lengthKey30"));
    EXPECT_EQ(chip(30), QStringLiteral("Press a key…"));
    EXPECT_EQ(find<QPushButton>(QStringLiteral("lengthKey30"))->text(), QStringLiteral("Cancel"));
    press(QStringLiteral("F12"));
    ASSERT_TRUE(said(QStringLiteral("F12 is the clip key. Choose another key for the last 30 "
                                    "seconds.")))
        << statuses().join(QLatin1Char('|')).toStdString();
    EXPECT_EQ(chip(30), QStringLiteral("None"));
    click(QStringLiteral("lengthKey30"));
    press(QStringLiteral("ctrl+F7"));
    ASSERT_TRUE(said(QStringLiteral("Ctrl+F7 saves the last 30 seconds.")))
        << statuses().join(QLatin1Char('|')).toStdString();
    EXPECT_EQ(chip(30), QStringLiteral("Ctrl+F7"));
    EXPECT_TRUE(find(QStringLiteral("clearLengthKey30")));

    // Cancel leaves a length as it was.
    click(QStringLiteral("lengthKey120"));
    EXPECT_EQ(chip(120), QStringLiteral("Press a key…"));
    click(QStringLiteral("lengthKey120"));
    EXPECT_EQ(chip(120), QStringLiteral("None"));
    click(QStringLiteral("lengthKey120"));
    press(QStringLiteral("ctrl+F8"));
    ASSERT_TRUE(said(QStringLiteral("Ctrl+F8 saves the last 120 seconds.")))
        << statuses().join(QLatin1Char('|')).toStdString();
    // The replay keeps the longest length a key asks for, and the memory figure says so.
    EXPECT_TRUE(
        find<QLabel>(QStringLiteral("replayMemory"))->text().contains(QStringLiteral("120 s")))
        << find<QLabel>(QStringLiteral("replayMemory"))->text().toStdString();

    click(QStringLiteral("clearAfterSave"));
    EXPECT_TRUE(ClipSettings::clearAfterSave());
    scrollIntoView(find(QStringLiteral("lengthKey120")), 20);
    saveScreen(window(), QStringLiteral("settings-length-keys"));

    // The 30 s key after a few seconds saves what the replay holds, and says it is short.
    ASSERT_TRUE(waitFor([&] { return shell().engine().bufferedDuration() >= 3; }, 30s));
    // A save says so as it begins, on the main thread that has run since the captures.
    EXPECT_FALSE(statuses().contains(QStringLiteral("Saving clip…")))
        << statuses().join(QLatin1Char('|')).toStdString();
    const qsizetype before = clipsIn(recordings()).size();
    EXPECT_EQ(before, 0) << clipsIn(recordings()).join(QLatin1Char('|')).toStdString();
    press(QStringLiteral("ctrl+F7"));
    ASSERT_TRUE(waitFor([&] { return clipsIn(recordings()).size() == before + 1; }, 30s));
    ASSERT_TRUE(waitFor(
        [&] { return statuses().last().contains(QStringLiteral("Sign in to share a link")); }));
    EXPECT_TRUE(statuses()[statuses().size() - 2].contains(QStringLiteral("of the 30 s asked for")))
        << statuses().join(QLatin1Char('|')).toStdString();
    QElapsedTimer sinceFirst;
    sinceFirst.start();
    const QString first = recordings() + QLatin1Char('/') + clipsIn(recordings()).last();

    // The tray offers every length; with the replay cleared by the save, the next clip holds only
    // what came after the first.
    ASSERT_TRUE(waitFor([&] { return shell().engine().bufferedDuration() >= 2; }, 30s));
    waitFor([] { return false; }, 1600ms); // one save per 1.5 s
    ASSERT_TRUE(openTrayMenu());
    const QList<QAction *> items = shell().tray()->menu()->actions();
    for (const int seconds : {15, 30, 60})
        EXPECT_TRUE(std::any_of(items.begin(), items.end(), [&](QAction *action) {
            return action->isVisible() &&
                action->text() == QStringLiteral("Save last %1s").arg(seconds);
        })) << seconds;
    pickFromMenu(shell().tray()->menu(), QStringLiteral("Save last 120s"));
    const double sinceFirstSave = sinceFirst.elapsed() / 1000.0;
    ASSERT_TRUE(waitFor([&] { return clipsIn(recordings()).size() == before + 2; }, 30s));
    ASSERT_TRUE(waitFor(
        [&] { return statuses().last().contains(QStringLiteral("Sign in to share a link")); }));
    EXPECT_TRUE(
        statuses()[statuses().size() - 2].contains(QStringLiteral("of the 120 s asked for")))
        << statuses().join(QLatin1Char('|')).toStdString();
    const QString second = recordings() + QLatin1Char('/') + clipsIn(recordings()).last();
    const double firstSeconds = probe::number(
        probe::ffprobe(first)[QStringLiteral("format")].toObject()[QStringLiteral("duration")]);
    const double secondSeconds = probe::number(
        probe::ffprobe(second)[QStringLiteral("format")].toObject()[QStringLiteral("duration")]);
    EXPECT_GE(firstSeconds, 2.5);
    // Without the clear, the second clip would hold the first's seconds too.
    EXPECT_GT(secondSeconds, 1.0);
    EXPECT_LT(secondSeconds, sinceFirstSave + 1.0)
        << "the second clip repeats the first, of " << firstSeconds << " s";
}

TEST_F(Journey, TheLibraryFillsInPostersWithoutStallingTheWindow)
{
    // 200 clips of one real recording under different names (each has its own poster), and a
    // damaged one.
    const QString original = makeClip(QStringLiteral("Clip 2026-01-01 00-00-00 000000.mp4"));
    for (int i = 1; i < 200; ++i)
        ASSERT_TRUE(QFile::copy(original,
                                recordings() +
                                    QStringLiteral("/Clip 2026-01-01 00-%1-%2 000000.mp4")
                                        .arg(i / 60, 2, 10, QLatin1Char('0'))
                                        .arg(i % 60, 2, 10, QLatin1Char('0'))));
    ASSERT_TRUE(QFile::copy(QStringLiteral(VANTREL_TEST_DATA "/posters/truncated.mp4"),
                            recordings() + QStringLiteral("/Clip 2025-12-31 23-59-59 DAMAGE.mp4")));
    launch();

    // The main thread's stalls: stretches between two ticks of a 10 ms timer in which it was busy
    // for more than 250 ms (under the sanitizers, which slow it two to three times). Its own CPU
    // time, not the wall clock, so that a machine shared with other builds does not count as a
    // stall.
    const auto busySeconds = [] {
        timespec now {};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
    };
    double last = busySeconds();
    double longest = 0;
    int stalls = 0;
    QTimer ticks;
    QObject::connect(&ticks, &QTimer::timeout, [&] {
        const double now = busySeconds();
        longest = std::max(longest, now - last);
        stalls += now - last > 0.25;
        last = now;
    });
    ticks.start(10);

    click(QStringLiteral("tabLibrary"));
    const auto durations = [&] {
        int shown = 0;
        for (QLabel *label : window()->findChildren<QLabel *>(QStringLiteral("clipDuration")))
            shown += label->isVisible();
        return shown;
    };
    const auto rowsInView = [&] {
        QList<QWidget *> rows;
        for (QWidget *row :
             window()->findChildren<QWidget *>(QRegularExpression(QStringLiteral("^clipRow:"))))
            if (row->isVisible() && !row->visibleRegion().isEmpty())
                rows << row;
        return rows;
    };
    ASSERT_TRUE(waitFor(
        [&] {
            // The damaged clip at the top has no duration.
            const qsizetype inView = rowsInView().size();
            return inView >= 3 && durations() >= inView - 1;
        },
        60s))
        << "posters of the rows in view: " << durations() << " of " << rowsInView().size();
    EXPECT_EQ(find<QLabel>(QStringLiteral("clipDuration"))->text(), QStringLiteral("0:01"));
    saveScreen(window(), QStringLiteral("library-posters"));
    // Each card holds its poster and its buttons apart, in this window and in the narrowest.
    const QSize size = window()->size();
    for (const int width : {size.width(), window()->minimumWidth()}) {
        window()->resize(width, size.height());
        waitFor([] { return false; }, 300ms); // the layouts settle
        ASSERT_FALSE(rowsInView().isEmpty()) << width;
        for (QWidget *row : rowsInView())
            EXPECT_EQ(overlapsInRow(row), QStringList())
                << width << " " << row->objectName().toStdString();
    }
    window()->resize(size);

    // Scrolling to the end draws every row on the way; each fills in.
    auto *scroll = find<QScrollArea>(QStringLiteral("libraryPageScroll"));
    ASSERT_TRUE(scroll);
    ASSERT_TRUE(waitFor(
        [&] {
            QScrollBar *bar = scroll->verticalScrollBar();
            bar->setValue(std::min(bar->maximum(), bar->value() + scroll->viewport()->height()));
            return durations() == 200;
        },
        120s))
        << durations() << " of 200";
    ticks.stop();
    EXPECT_EQ(stalls, 0) << "longest busy stretch " << longest * 1000 << " ms";

    ClipRow *damaged = nullptr;
    for (ClipRow *row : window()->findChildren<ClipRow *>())
        if (row->clip().name.contains(QStringLiteral("DAMAGE")))
            damaged = row;
    ASSERT_TRUE(damaged);
    QLabel *poster = damaged->findChild<QLabel *>(QStringLiteral("clipPoster"));
    ASSERT_TRUE(
        waitFor([&] { return poster->toolTip().startsWith(QStringLiteral("No preview")); }));
    EXPECT_FALSE(damaged->findChild<QLabel *>(QStringLiteral("clipDuration"))->isVisible());
}

TEST_F(Journey, ATrimFromTheWindowKeepsExactlyTheChosenFrames)
{
    // 4 s at 30 fps with a key frame every 2 s, and a tone: the cut starts between key frames.
    QDir().mkpath(recordings());
    const QString clip = recordings() + QStringLiteral("/Clip 2026-02-02 10-00-00 ABCDEF.mp4");
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"),
                 QStringList {"-v",        "error",
                              "-f",        "lavfi",
                              "-i",        "testsrc2=duration=4:size=640x360:rate=30",
                              "-f",        "lavfi",
                              "-i",        "sine=f=440:r=48000:d=4",
                              "-c:v",      "libx264",
                              "-pix_fmt",  "yuv420p",
                              "-g",        "60",
                              "-bf",       "0",
                              "-c:a",      "aac",
                              "-shortest", clip});
    ASSERT_TRUE(ffmpeg.waitForFinished(60000) && ffmpeg.exitCode() == 0);
    const QByteArray before = digest(clip);
    launch();
    click(QStringLiteral("tabLibrary"));
    ASSERT_TRUE(waitForVisible(QStringLiteral("clipRow:") + QFileInfo(clip).fileName()));
    click(QStringLiteral("trim"));
    ASSERT_TRUE(waitFor([&] {
        auto *page = window()->findChild<TrimPage *>();
        return page && page->isVisible() && page->frameCount() == 120;
    }));
    auto *page = window()->findChild<TrimPage *>();
    for (int i = 0; i < 9; ++i)
        click(QStringLiteral("nextFrame"));
    QTest::keyClick(page, Qt::Key_Right);
    EXPECT_EQ(page->frame(), 10);
    EXPECT_EQ(find<QLabel>(QStringLiteral("trimPosition"))->text(),
              QStringLiteral("Frame 11 of 120 · 0:00.333"));
    click(QStringLiteral("setIn"));
    find<QSlider>(QStringLiteral("trimSlider"))->setValue(99);
    QTest::keyClick(page, Qt::Key_O);
    EXPECT_EQ(page->inFrame(), 10);
    EXPECT_EQ(page->outFrame(), 99);
    EXPECT_EQ(find<QLabel>(QStringLiteral("trimCut"))->text(),
              QStringLiteral("In 0:00.333 · Out 0:03.333 · 90 frames, 3.00 s"));
    ASSERT_TRUE(waitFor([&] {
        return !find<QLabel>(QStringLiteral("trimPicture"))->pixmap().isNull();
    })) << "the player shows the clip";
    saveScreen(window(), QStringLiteral("trim-view"));

    click(QStringLiteral("saveTrimmed"));
    const QString copy =
        recordings() + QStringLiteral("/Clip 2026-02-02 10-00-00 ABCDEF trimmed.mp4");
    ASSERT_TRUE(waitForStatus(QStringLiteral("Saved the trimmed copy as %1, beside the clip in %2.")
                                  .arg(QFileInfo(copy).fileName(), recordings()),
                              60s))
        << statuses().join(QLatin1Char('|')).toStdString();
    EXPECT_EQ(digest(clip), before) << "the original is untouched";
    EXPECT_EQ(probe::decodeErrors(copy), QString());
    const QJsonObject info = probe::ffprobe(copy, {QStringLiteral("-count_frames")});
    const QJsonObject video = probe::streams(info, QStringLiteral("video"))[0].toObject();
    EXPECT_EQ(video[QStringLiteral("nb_read_frames")].toString(), QStringLiteral("90"));
    EXPECT_NEAR(probe::number(video[QStringLiteral("duration")]), 3.0, 0.001);
    // Its first frame is the one chosen: closer to the clip's frame 10 than to 9 or 11 (ffmpeg
    // gives the first frame that starts at or after the time asked).
    const QByteArray start = probe::grayFrame(copy, 0);
    const double chosen = probe::meanDifference(start, probe::grayFrame(clip, 10 / 30.0 - 0.001));
    EXPECT_LT(chosen, probe::meanDifference(start, probe::grayFrame(clip, 9 / 30.0 - 0.001)));
    EXPECT_LT(chosen, probe::meanDifference(start, probe::grayFrame(clip, 11 / 30.0 - 0.001)));
    // A second save of the same cut never writes over the first; both are clips of the library.
    click(QStringLiteral("saveTrimmed"));
    const QString again =
        recordings() + QStringLiteral("/Clip 2026-02-02 10-00-00 ABCDEF trimmed 2.mp4");
    ASSERT_TRUE(waitForStatus(QStringLiteral("Saved the trimmed copy as %1, beside the clip in %2.")
                                  .arg(QFileInfo(again).fileName(), recordings()),
                              60s));
    click(QStringLiteral("closeTrim"));
    EXPECT_TRUE(waitForVisible(QStringLiteral("clipRow:") + QFileInfo(copy).fileName()));
}

TEST_F(Journey, TheSoundRowOffersThePlayingApplicationsAndSaysWhichIsRecorded)
{
    const QString tone = home() + QStringLiteral("/tone.wav");
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"),
                 QStringList {"-v", "error", "-f", "lavfi", "-i", "sine=f=700:r=48000:d=30", tone});
    ASSERT_TRUE(ffmpeg.waitForFinished(30000) && ffmpeg.exitCode() == 0);
    QProcess game;
    game.start(QStringLiteral("paplay"), {QStringLiteral("--client-name=Tone Game"), tone});
    ASSERT_TRUE(game.waitForStarted());
    launch();
    click(QStringLiteral("tabSettings"));
    EXPECT_EQ(find<QLabel>(QStringLiteral("soundRecorded"))->text(),
              QStringLiteral("Recording all system sound."));
    // The list is read as the page appears; a stream that started just before may need Refresh.
    const QString choice = QStringLiteral("soundApp:Tone Game");
    ASSERT_TRUE(waitFor(
        [&] {
            if (waitForVisible(choice, 500ms))
                return true;
            click(QStringLiteral("refreshSoundSources"));
            return false;
        },
        20s));
    click(choice);
    EXPECT_EQ(ClipSettings::soundSource(), QStringLiteral("Tone Game"));
    ASSERT_TRUE(waitFor([&] {
        return find<QLabel>(QStringLiteral("soundRecorded"))
            ->text()
            .startsWith(QStringLiteral("Recording only Tone Game."));
    }));
    click(QStringLiteral("clearAfterSave"));
    scrollIntoView(find(QStringLiteral("clearAfterSave")), 40);
    saveScreen(window(), QStringLiteral("settings-sound"));

    // Chosen and silent, it stays offered, so the user can see what is recorded and change it.
    game.kill();
    game.waitForFinished();
    click(QStringLiteral("refreshSoundSources"));
    EXPECT_TRUE(waitForVisible(choice));
    click(QStringLiteral("soundAll"));
    EXPECT_EQ(ClipSettings::soundSource(), QString());
}
