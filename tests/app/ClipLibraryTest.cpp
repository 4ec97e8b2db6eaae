#include "app/ClipLibrary.h"
#include "app/AppModel.h"
#include "input/ClipHotkey.h"

#include "support/TestEnvironment.h"

#include <QClipboard>
#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QMimeData>
#include <QSignalSpy>

#include <sys/stat.h>
#include <utime.h>

class ClipLibraryTest : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        folder = home() + QStringLiteral("/Videos/Vantrel");
        ASSERT_TRUE(QDir().mkpath(folder));
    }

    // A file of `bytes` bytes whose modification time is `mtime` seconds after the epoch.
    QString write(const QString &name, qint64 bytes, time_t mtime = 1'700'000'000)
    {
        const QString path = folder + QLatin1Char('/') + name;
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(bytes, 'x'));
        file.close();
        const struct utimbuf times
        {
            mtime, mtime
        };
        utime(QFile::encodeName(path).constData(), &times);
        return path;
    }

    QStringList names(const QList<ClipFile> &clips)
    {
        QStringList out;
        for (const ClipFile &clip : clips)
            out << clip.name;
        return out;
    }

    QString folder;
};

TEST_F(ClipLibraryTest, ListsOnlyFinishedClipsNewestFirst)
{
    write(QStringLiteral("Clip 2026-11-16 20-14-44 3F9A1C.mp4"), 5000, 1'700'000'100);
    write(QStringLiteral("tiny.mp4"), 1000);
    write(QStringLiteral("just enough.mp4"), 1001, 1'700'000'050);
    write(QStringLiteral("Session 2026-11-16 20-31-07.mp4"), 50'000);
    write(QStringLiteral("session 2026-11-16.mp4"), 50'000, 1'700'000'010);
    write(QStringLiteral("CLIP.MP4"), 2'000'000, 1'700'000'200);
    write(QStringLiteral(".hidden.mp4"), 50'000);
    write(QStringLiteral("notes.txt"), 50'000);
    write(QStringLiteral(".vantrel-partial.mp4.part"), 50'000);

    const auto clips = ClipLibrary::listClips(folder);
    EXPECT_EQ(names(clips),
              (QStringList {
                  QStringLiteral("CLIP.MP4"), QStringLiteral("Clip 2026-11-16 20-14-44 3F9A1C.mp4"),
                  QStringLiteral("just enough.mp4"), QStringLiteral("session 2026-11-16.mp4")}));
    EXPECT_EQ(clips[0].size, QStringLiteral("2 MB"));
    EXPECT_EQ(clips[1].size, QStringLiteral("5 KB"));
    EXPECT_EQ(clips[0].id, QUrl::fromLocalFile(folder + QStringLiteral("/CLIP.MP4")));
    EXPECT_TRUE(ClipLibrary::listClips(home() + QStringLiteral("/missing")).isEmpty());

    EXPECT_EQ(formatFileSize(12'400'000), QStringLiteral("12.4 MB"));
    EXPECT_EQ(formatFileSize(999'960'000), QStringLiteral("1 GB"));
    EXPECT_EQ(formatFileSize(1'234'567'890), QStringLiteral("1.23 GB"));
    EXPECT_EQ(formatFileSize(999), QStringLiteral("999 bytes"));
}

TEST_F(ClipLibraryTest, SameDateKeepsListingOrderAndAnUnchangedFolderLeavesTheModelAlone)
{
    for (const char *name : {"b.mp4", "a.mp4", "c.mp4"})
        write(QString::fromLatin1(name), 2000);
    QStringList listed;
    for (const QFileInfo &entry : QDir(folder).entryInfoList(QDir::Files, QDir::Unsorted))
        listed << entry.fileName();
    EXPECT_EQ(names(ClipLibrary::listClips(folder)), listed);

    AppModel model;
    ClipLibrary library(model, folder);
    QSignalSpy changes(&model, &AppModel::clipsChanged);
    library.refreshClips(false);
    library.refreshClips(false);
    EXPECT_EQ(changes.count(), 1);
    // A new date alone is no news while the order holds; a rename, a new size text or a forced
    // refresh is.
    write(listed.first(), 2000, 1'800'000'000);
    library.refreshClips(false);
    EXPECT_EQ(changes.count(), 1);
    library.refreshClips(true);
    EXPECT_EQ(changes.count(), 2);
    QFile::rename(folder + QStringLiteral("/c.mp4"), folder + QStringLiteral("/d.mp4"));
    library.refreshClips(false);
    EXPECT_EQ(changes.count(), 3);
    write(listed.first(), 9000, 1'800'000'000);
    library.refreshClips(false);
    EXPECT_EQ(changes.count(), 4);
}

TEST_F(ClipLibraryTest, TheWatchPicksUpNewClipsWithoutBeingAsked)
{
    AppModel model;
    ClipLibrary library(model, folder);
    library.startWatchingClips();
    write(QStringLiteral("Clip new.mp4"), 4000);
    QSignalSpy changes(&model, &AppModel::clipsChanged);
    ASSERT_TRUE(changes.wait(3000));
    EXPECT_EQ(names(model.clips()), QStringList {QStringLiteral("Clip new.mp4")});
    library.stopWatchingClips();
    write(QStringLiteral("Clip later.mp4"), 4000);
    EXPECT_FALSE(changes.wait(1500));
}

TEST_F(ClipLibraryTest, ActionsSayWhatHappened)
{
    AppModel model;
    ClipLibrary library(model, folder);
    const QUrl kept = QUrl::fromLocalFile(write(QStringLiteral("Clip kept.mp4"), 4000));
    const QUrl partial = QUrl::fromLocalFile(write(QStringLiteral("Clip partial.mp4"), 900));
    const QUrl gone = QUrl::fromLocalFile(folder + QStringLiteral("/Clip gone.mp4"));
    library.refreshClips(true);
    ASSERT_EQ(model.clips().size(), 1);

    library.copyClip(kept);
    EXPECT_EQ(model.status(), QStringLiteral("Copied Clip kept.mp4."));
    const QMimeData *copied = QGuiApplication::clipboard()->mimeData();
    ASSERT_NE(copied, nullptr);
    EXPECT_EQ(copied->urls(), QList<QUrl> {kept});
    EXPECT_TRUE(copied->hasFormat(QStringLiteral("text/uri-list")));

    library.openClip(gone);
    EXPECT_EQ(model.status(), QStringLiteral("That clip file is gone."));
    ClipHotkey::save(88, ClipHotkey::shiftKey, QStringLiteral("Shift+F12"));
    library.openClip(partial);
    EXPECT_EQ(model.status(),
              QStringLiteral("That clip didn’t finish saving. Try Shift+F12 again."));
    library.copyClip(gone);
    EXPECT_EQ(model.status(), QStringLiteral("That clip file is gone."));

    library.deleteClip(kept);
    EXPECT_EQ(model.status(), QStringLiteral("Deleted Clip kept.mp4."));
    EXPECT_TRUE(model.clips().isEmpty()); // at once, not at the next poll
    EXPECT_FALSE(QFile::exists(kept.toLocalFile()));
    EXPECT_TRUE(QFile::exists(home() + QStringLiteral("/.local/share/Trash/files/Clip kept.mp4")));
    library.deleteClip(kept);
    EXPECT_EQ(model.status(), QStringLiteral("That clip file is gone."));
}
