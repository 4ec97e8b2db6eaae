// Sharing from the program: one clip to a link on the clipboard, every listed clip to a folder
// link, the texts for a signed-out user and a vanished file, and taking a deleted clip's link
// down, against a service on 127.0.0.1.

#include "CloudTestSupport.h"
#include "RawHttpServer.h"

#include "app/AppModel.h"
#include "app/ClipLibrary.h"
#include "app/ShareActions.h"
#include "cloud/AccountStore.h"
#include "cloud/HostedClips.h"
#include "support/TestEnvironment.h"

#include <QClipboard>
#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdlib>

namespace {

class ShareActionsTest : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        service.answer("/v1/me", {{200, R"({"name":"Ada"})"}});
        setenv("VANTREL_SERVICE_URL", service.url().toUtf8().constData(), 1);
        QDir().mkpath(folder());
        QGuiApplication::clipboard()->setText(QStringLiteral("what the user copied before"));
    }

    QString folder() const { return home() + QStringLiteral("/Videos/Vantrel"); }

    // Lists clips in the model, newest first, as the library would; each file holds its name.
    QList<QUrl> listClips(const QStringList &names)
    {
        QList<ClipFile> clips;
        QList<QUrl> urls;
        for (const QString &name : names) {
            const QString path = folder() + QLatin1Char('/') + name;
            QFile file(path);
            EXPECT_TRUE(file.open(QIODevice::WriteOnly));
            file.write(name.toUtf8());
            clips << ClipFile {QUrl::fromLocalFile(path), name, {}, QStringLiteral("1 KB")};
            urls << QUrl::fromLocalFile(path);
        }
        model.setClips(clips);
        return urls;
    }

    QStringList statuses() const { return m_statuses; }
    void follow()
    {
        QObject::connect(&model, &AppModel::statusChanged,
                         [this] { m_statuses << model.status(); });
    }

    // The file names of the uploads, in the order they arrived.
    QStringList uploadedNames() const
    {
        QStringList names;
        for (const RawHttpServer::Request &request : service.requests()) {
            if (request.path != "/v1/clips")
                continue;
            const QByteArray marker = "filename=\"";
            const qsizetype start = request.body.indexOf(marker) + marker.size();
            names << QString::fromUtf8(
                request.body.mid(start, request.body.indexOf('"', start) - start));
        }
        return names;
    }

    // The requests about one hosted clip.
    QList<RawHttpServer::Request> takeDowns() const
    {
        QList<RawHttpServer::Request> found;
        for (const RawHttpServer::Request &request : service.requests())
            if (request.path.startsWith("/v1/clips/"))
                found << request;
        return found;
    }

    RawHttpServer service;
    AppModel model;
    ClipLibrary library {model, folder()};
    ShareActions share {model, library};

private:
    QStringList m_statuses;
};

} // namespace

TEST_F(ShareActionsTest, SignedOutOrWithoutFilesNothingIsSent)
{
    follow();
    const QList<QUrl> clips = listClips({QStringLiteral("Clip A.mp4")});
    share.shareClip(clips[0]);
    share.shareAllClips();
    share.shareClip(QUrl::fromLocalFile(folder() + QStringLiteral("/Clip gone.mp4")));
    // The library was read again: the test's files are too small to be clips.
    EXPECT_TRUE(model.clips().isEmpty());
    QFile::remove(clips[0].toLocalFile());
    share.shareAllClips();
    EXPECT_EQ(statuses(),
              QStringList({"Saved. Sign in to share a link.", "Sign in to share a folder link.",
                           "That clip file is gone.", "No clips to send."}));
    EXPECT_TRUE(model.uploading().isEmpty());
    EXPECT_FALSE(model.sharingAll());
    EXPECT_TRUE(service.requests().isEmpty());
}

TEST_F(ShareActionsTest, OneClipBecomesALinkOnTheClipboard)
{
    service.answer("/v1/clips",
                   {{200, R"({"id":"c1","url":"https://svc.test/c/c1"})"},
                    {401, R"({"detail":"Token revoked."})"}});
    AccountStore::shared().applyToken(QStringLiteral("tok-1"));
    follow();
    const QList<QUrl> clips =
        listClips({QStringLiteral("Clip B.mp4"), QStringLiteral("Clip A.mp4")});

    share.shareClip(clips[0]);
    EXPECT_EQ(model.uploading(), QSet<QUrl>({clips[0]}));
    EXPECT_EQ(model.status(), QStringLiteral("Uploading Clip B.mp4…"));
    ASSERT_TRUE(waitUntil([&] { return model.uploading().isEmpty(); }, 10000));
    EXPECT_EQ(model.status(), QStringLiteral("Link copied — paste it anywhere."));
    EXPECT_EQ(model.shares().value(clips[0]), QStringLiteral("https://svc.test/c/c1"));
    EXPECT_EQ(QGuiApplication::clipboard()->text(), QStringLiteral("https://svc.test/c/c1"));
    EXPECT_EQ(HostedClips::all().value(QStringLiteral("Clip B.mp4")), QStringLiteral("c1"));
    {
        // After a restart the clip still has its link.
        AppModel next;
        ClipLibrary nextLibrary(next, folder());
        ShareActions nextShare(next, nextLibrary);
        nextShare.restoreLinks(folder());
        EXPECT_EQ(next.shares(),
                  (QMap<QUrl, QString> {{clips[0], QStringLiteral("https://svc.test/c/c1")}}));
    }

    // A refusal shows the service's sentence and leaves the clipboard alone.
    share.shareClip(clips[1]);
    ASSERT_TRUE(waitUntil([&] { return model.uploading().isEmpty(); }, 10000));
    EXPECT_EQ(model.status(), QStringLiteral("Please sign in again."));
    EXPECT_FALSE(model.shares().contains(clips[1]));
    EXPECT_EQ(QGuiApplication::clipboard()->text(), QStringLiteral("https://svc.test/c/c1"));
    EXPECT_EQ(uploadedNames(), QStringList({"Clip B.mp4", "Clip A.mp4"}));
}

TEST_F(ShareActionsTest, ShareAllUploadsTheListedClipsInOrderThenMakesOneFolderLink)
{
    service.answer("/v1/clips",
                   {{200, R"({"id":"c3","url":"https://svc.test/c/c3"})"},
                    {200, R"({"id":"c1","url":"https://svc.test/c/c1"})"},
                    {500, R"({"detail":"Disk full."})"}});
    service.answer("/v1/packs", {{200, R"({"url":"https://svc.test/p/9"})"}});
    AccountStore::shared().applyToken(QStringLiteral("tok-1"));
    const QList<QUrl> clips = listClips(
        {QStringLiteral("Clip 3.mp4"), QStringLiteral("Clip 2.mp4"), QStringLiteral("Clip 1.mp4")});
    QFile::remove(clips[1].toLocalFile()); // behind the program's back

    share.shareAllClips();
    EXPECT_TRUE(model.sharingAll());
    EXPECT_EQ(model.status(), QStringLiteral("Uploading 2 clips…"));
    ASSERT_TRUE(waitUntil([&] { return !model.sharingAll(); }, 10000));
    EXPECT_EQ(model.status(), QStringLiteral("Folder link copied — 2 clips on 127.0.0.1."));
    EXPECT_EQ(model.packLink(), QStringLiteral("https://svc.test/p/9"));
    EXPECT_EQ(QGuiApplication::clipboard()->text(), QStringLiteral("https://svc.test/p/9"));
    EXPECT_EQ(uploadedNames(), QStringList({"Clip 3.mp4", "Clip 1.mp4"}));
    EXPECT_EQ(model.shares().size(), 2);
    const RawHttpServer::Request pack = service.requests().last();
    ASSERT_EQ(pack.path, "/v1/packs");
    EXPECT_EQ(
        QJsonDocument::fromJson(pack.body).object(),
        QJsonDocument::fromJson(R"({"title":"Vantrel clips","clip_ids":["c3","c1"]})").object());

    // The next run fails on its first upload: no pack, the last folder link stays.
    model.setShares({});
    share.shareAllClips();
    ASSERT_TRUE(waitUntil([&] { return !model.sharingAll(); }, 10000));
    EXPECT_EQ(model.status(), QStringLiteral("Disk full."));
    EXPECT_EQ(model.packLink(), QStringLiteral("https://svc.test/p/9"));
    EXPECT_TRUE(model.shares().isEmpty());
    EXPECT_EQ(service.requests().last().path, "/v1/clips");
}

// Deleting a clip that was shared also takes its page down, so the link stops working; the clip
// goes to the Trash whatever the service says, and the status line says how the link fared.
TEST_F(ShareActionsTest, DeletingASharedClipTakesItsLinkDownOrSaysWhyNot)
{
    service.answer("/v1/clips/c1", {{204, ""}});
    service.answer("/v1/clips/c2", {{404, R"({"detail":"No such clip."})"}});
    AccountStore::shared().applyToken(QStringLiteral("tok-1"));
    const QList<QUrl> clips =
        listClips({QStringLiteral("Clip A.mp4"), QStringLiteral("Clip B.mp4"),
                   QStringLiteral("Clip C.mp4"), QStringLiteral("Clip D.mp4")});
    HostedClips::remember(clips[0], QStringLiteral("c1"));
    HostedClips::remember(clips[1], QStringLiteral("c2"));
    HostedClips::remember(clips[3], QStringLiteral("c4"));
    model.setShares({{clips[0], QStringLiteral("https://svc.test/c/c1")},
                     {clips[1], QStringLiteral("https://svc.test/c/c2")}});
    follow();
    // As the Library's Delete does.
    const auto remove = [&](const QUrl &clip) {
        if (library.deleteClip(clip))
            share.takeDown(clip);
    };

    remove(clips[0]);
    ASSERT_TRUE(waitUntil([&] { return statuses().size() == 3; }, 10000));
    EXPECT_EQ(statuses(),
              QStringList({"Deleted Clip A.mp4.", "Deleted Clip A.mp4. Taking its link down…",
                           "Deleted Clip A.mp4. Its link no longer works."}));
    ASSERT_EQ(takeDowns().size(), 1);
    EXPECT_EQ(takeDowns()[0].method, "DELETE");
    EXPECT_EQ(takeDowns()[0].path, "/v1/clips/c1");
    EXPECT_EQ(takeDowns()[0].headers.value("authorization"), "Bearer tok-1");
    EXPECT_FALSE(HostedClips::all().contains(QStringLiteral("Clip A.mp4")));
    EXPECT_FALSE(model.shares().contains(clips[0]));

    // The service says no: the clip is gone here all the same, and the record stays for later.
    remove(clips[1]);
    ASSERT_TRUE(waitUntil([&] { return statuses().size() == 6; }, 10000));
    EXPECT_EQ(statuses().last(),
              QStringLiteral("Deleted Clip B.mp4, but its link could not be "
                             "taken down: No such clip."));
    EXPECT_EQ(HostedClips::all().value(QStringLiteral("Clip B.mp4")), QStringLiteral("c2"));

    // Never shared: the Trash is all there is to it. Signed out: nothing can be asked.
    remove(clips[2]);
    AccountStore::shared().signOut();
    remove(clips[3]);
    EXPECT_EQ(statuses().mid(6),
              QStringList({"Deleted Clip C.mp4.", "Deleted Clip D.mp4.",
                           "Deleted Clip D.mp4, but its link could not be taken down: you are "
                           "not signed in."}));
    EXPECT_EQ(takeDowns().size(), 2);
    EXPECT_EQ(QDir(folder()).entryList(QDir::Files), QStringList());
}
