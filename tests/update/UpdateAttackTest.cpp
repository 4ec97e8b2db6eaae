// What a hostile service, a network in the middle or another user of the machine tries against
// the update: an older signed release offered as a newer one, a file planted where the download
// used to go, an archive at an address that is not the web's (a local file, inline data, plain
// http elsewhere, a redirect there), and a version answer too large to hold. Every one leaves the
// installed copy as it was.

#include "update/UpdateStoreFixture.h"

#include "update/UpdateStore.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <qcoro/qcorotask.h>

#include <gtest/gtest.h>

#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class UpdateAttack : public UpdateStoreFixture
{
protected:
    // Checks for a release, installs it and waits for the end: a refusal (a success would quit).
    QString installAndWait()
    {
        UpdateStore store;
        store.setInstalledRoot(root);
        QCoro::waitFor(store.load());
        if (!store.available())
            return QStringLiteral("(nothing offered)");
        store.install();
        if (!QTest::qWaitFor([&store] { return !store.busy(); }, 60000))
            return QStringLiteral("(still busy)");
        return store.status();
    }

    // Nothing is left of a download, nor beside the installed copy.
    void expectNothingLeft()
    {
        EXPECT_EQ(entriesBeside(parent, QStringLiteral("Vantrel")), QStringList());
        EXPECT_EQ(downloadsLeft(), QStringList());
    }
};

using Downgrade = UpdateAttack;
using Leak = UpdateAttack;
using ForeignUrl = UpdateAttack;
using HugeReply = UpdateAttack;

QByteArray fileBytes(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

// The service announces a newer number and serves an older release with its genuine signature.
// The archive's own VERSION decides, and it must be newer than the copy and what was offered.
TEST_F(Downgrade, AnOlderSignedReleaseOfferedAsNewerIsRefusedBeforeTheSwap)
{
    InstalledCopy::installFrom(newArchive(), root);
    struct Case
    {
        QString offered;
        QString archive;
        QString refusal;
    };
    const std::vector<Case> cases = {
        {QStringLiteral("9.0"), oldArchive(),
         QStringLiteral("The update holds Vantrel 1.1.3, which is not newer than this copy "
                        "(1.2.0), so it was not installed.")},
        {QStringLiteral("1.2.1"), newArchive(),
         QStringLiteral("The update holds Vantrel 1.2.0, which is not newer than this copy "
                        "(1.2.0), so it was not installed.")},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.offered.toStdString());
        server.offer(c.offered, c.archive, signatureOf(c.archive));
        EXPECT_EQ(installAndWait(), c.refusal);
        EXPECT_EQ(versionOf(root), "Vantrel 1.2.0");
        expectNothingLeft();
    }

    // A genuine newer release, but not the one offered: the service's numbers are not trusted.
    InstalledCopy::installFrom(oldArchive(), root);
    server.offer(QStringLiteral("9.0"), newArchive(), signatureOf(newArchive()));
    EXPECT_EQ(installAndWait(),
              QStringLiteral("The update was offered as Vantrel 9.0 but holds "
                             "1.2.0, so it was not installed."));
    EXPECT_EQ(versionOf(root), "Vantrel 1.1.3");
    expectNothingLeft();
}

// Another user of the machine creates the download's old fixed name in the shared temporary
// folder first. The download now goes to a folder of its own that only this user can enter.
TEST_F(Leak, AFilePlantedInTheTemporaryFolderIsNeverTheDownload)
{
    const QString planted = tempFolder() + QStringLiteral("/Vantrel-update.tar.gz");
    ASSERT_TRUE(QDir().mkpath(planted)); // a folder, which not even root can replace with a file
    QFile bait(planted + QStringLiteral("/bait"));
    ASSERT_TRUE(bait.open(QIODevice::WriteOnly));
    bait.write("planted");
    bait.close();

    std::mutex mutex;
    QStringList seen; // what the download's folder looked like while it arrived
    server.setOnDownload([&] {
        std::scoped_lock lock(mutex);
        for (const QFileInfo &folder :
             QDir(downloads()).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot)) {
            struct stat info
            {
            };
            ::lstat(QFile::encodeName(folder.filePath()).constData(), &info);
            seen << QStringLiteral("%1 %2 %3 %4")
                        .arg(folder.fileName().left(7))
                        .arg(S_ISDIR(info.st_mode) ? QStringLiteral("folder") : QStringLiteral("?"))
                        .arg(info.st_mode & 0777, 0, 8)
                        .arg(info.st_uid == ::geteuid() ? QStringLiteral("ours")
                                                        : QStringLiteral("not ours"))
                 << QDir(folder.filePath()).entryList(QDir::Files);
        }
    });
    // A wrong signature ends the install right after the download, before anything is swapped.
    server.offer(QStringLiteral("1.2.0"), newArchive(), signatureOf(oldArchive()));
    EXPECT_EQ(installAndWait(), QStringLiteral("Couldn’t verify the update."));
    {
        std::scoped_lock lock(mutex);
        EXPECT_EQ(seen, QStringList({"update- folder 700 ours", "Vantrel-update.tar.gz"}));
    }
    EXPECT_EQ(fileBytes(planted + QStringLiteral("/bait")), "planted");
    EXPECT_EQ(versionOf(root), "Vantrel 1.1.3");
    expectNothingLeft();
}

// A signed archive is still only fetched from the web over TLS (or from this machine): never a
// local file the service names, inline data, plain http to another host, or a redirect there.
TEST_F(ForeignUrl, AnUpdateAtALocalFileInlineDataOrPlainHttpElsewhereIsNeverFetched)
{
    const QString standIn = home() + QStringLiteral("/stand-in.tar.gz");
    writeTarGz(standIn, standInRelease(QStringLiteral("1.2.0")));
    const QByteArray signature = signatureOf(standIn).toBase64();
    const QString refusal = QStringLiteral("The update’s address is not a secure one (");

    const QStringList addresses = {
        QUrl::fromLocalFile(standIn).toString(),
        QStringLiteral("data:application/gzip;base64,") +
            QString::fromLatin1(fileBytes(standIn).toBase64()),
        QStringLiteral("http://192.0.2.1/download/Vantrel-1.2.0-linux-x86_64.tar.gz"),
    };
    for (const QString &address : addresses) {
        SCOPED_TRACE(address.left(60).toStdString());
        server.setVersionReply(200,
                               R"({"version":"1.2.0","linux_url":")" + address.toUtf8() +
                                   R"(","linux_sig":")" + signature + "\"}");
        EXPECT_TRUE(installAndWait().startsWith(refusal));
        EXPECT_EQ(versionOf(root), "Vantrel 1.1.3");
        expectNothingLeft();
    }

    // The service's own download answers with a redirect to plain http elsewhere.
    server.offer(QStringLiteral("1.2.0"), standIn, signatureOf(standIn));
    server.redirectDownloads("http://192.0.2.1/Vantrel-1.2.0-linux-x86_64.tar.gz");
    EXPECT_EQ(installAndWait(),
              refusal +
                  QStringLiteral("http://192.0.2.1/Vantrel-1.2.0-linux-x86_64.tar.gz), so it "
                                 "was not downloaded."));
    EXPECT_EQ(versionOf(root), "Vantrel 1.1.3");
    expectNothingLeft();
}

// The version answer is a few hundred bytes; one of megabytes is no answer (and not held).
TEST_F(HugeReply, AVersionAnswerPastTheLimitOffersNothing)
{
    const QByteArray notes(2 << 20, 'n');
    server.setVersionReply(200, R"({"version":"9.0","notes":")" + notes + "\"}");
    UpdateStore store;
    QCoro::waitFor(store.load());
    EXPECT_FALSE(store.available());
    server.setVersionReply(200, R"({"version":"9.0","notes":"Fine."})");
    QCoro::waitFor(store.load());
    EXPECT_TRUE(store.available());
}
