#include "update/UpdateStoreFixture.h"

#include "update/UpdateError.h"
#include "update/UpdateStore.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSignalSpy>
#include <QTest>

#include <qcoro/qcorotask.h>

#include <gtest/gtest.h>

// openssl, chattr and the installed copy are started through QProcess, which clones with a shared
// address space until exec; ThreadSanitizer takes that for a fork of a threaded process. Nothing
// runs in the child before exec.
extern "C" const char *__tsan_default_options()
{
    return "die_after_fork=0";
}

namespace {

class UpdateStoreTest : public UpdateStoreFixture
{
protected:
    // Runs an install of what the server offers and waits until it ends (in failure: the
    // program would quit on success).
    void installAndWait(UpdateStore &store)
    {
        QCoro::waitFor(store.load());
        ASSERT_TRUE(store.available());
        store.install();
        ASSERT_TRUE(store.busy());
        ASSERT_TRUE(QTest::qWaitFor([&store] { return !store.busy(); }, 60000));
    }
};

TEST_F(UpdateStoreTest, TheCheckKeepsOnlyANewerRelease)
{
    UpdateStore store;
    QSignalSpy changes(&store, &UpdateStore::availableChanged);
    server.offer(QStringLiteral("1.2.0"), newArchive(), "sig");
    QCoro::waitFor(store.load());
    ASSERT_TRUE(store.available());
    EXPECT_EQ(store.availableVersion(), "1.2.0");
    EXPECT_EQ(store.availableNotes(), "Faster saves.");
    EXPECT_EQ(store.available()->url.toString(),
              server.url() + QStringLiteral("/download/Vantrel-1.2.0-linux-x86_64.tar.gz"));
    EXPECT_EQ(store.available()->signature, "sig");
    EXPECT_EQ(changes.count(), 1);

    // The same version, a failed reply and a reply that is no JSON each clear it.
    for (const auto &[status, body] : std::vector<std::pair<int, QByteArray>> {
             {200, R"({"version":"1.1.3"})"}, {500, R"({"version":"9.0"})"}, {200, "9.0"}}) {
        server.offer(QStringLiteral("1.2.0"), newArchive(), "sig");
        QCoro::waitFor(store.load());
        ASSERT_TRUE(store.available());
        server.setVersionReply(status, body);
        QCoro::waitFor(store.load());
        EXPECT_FALSE(store.available()) << status << ' ' << body.toStdString();
    }
}

TEST_F(UpdateStoreTest, InstallDoesNothingWithoutAReleaseWhileBusyOrFromAnotherCopy)
{
    UpdateStore store;
    store.setInstalledRoot(root);
    store.install();
    EXPECT_FALSE(store.busy());
    EXPECT_EQ(store.status(), "");

    // A second install while one runs starts nothing; this one fails on its signature.
    server.offer(QStringLiteral("1.2.0"), newArchive(), QByteArray(64, 'x'));
    QCoro::waitFor(store.load());
    QSignalSpy busy(&store, &UpdateStore::busyChanged);
    store.install();
    EXPECT_EQ(store.status(), "Downloading 1.2.0…");
    store.install();
    ASSERT_TRUE(QTest::qWaitFor([&store] { return !store.busy(); }, 60000));
    EXPECT_EQ(busy.count(), 2);
    EXPECT_EQ(server.hits("/download/Vantrel-1.2.0-linux-x86_64.tar.gz"), 1);
    EXPECT_EQ(store.status(), UpdateError::cannotVerify());
    EXPECT_TRUE(store.available());

    // A copy that is not the installed release never replaces itself.
    UpdateStore other;
    other.setInstalledRoot({});
    QCoro::waitFor(other.load());
    other.install();
    EXPECT_FALSE(other.busy());
    EXPECT_EQ(other.status(), UpdateError::notInstalledCopy());
    EXPECT_EQ(server.hits("/download/Vantrel-1.2.0-linux-x86_64.tar.gz"), 1);

    // Nor does one the package manager installed, even with a copy of its own at hand; the
    // newer release is still shown, with the way to get it.
    UpdateStore packaged;
    packaged.setInstalledRoot(root);
    packaged.setPackageManaged(true);
    QCoro::waitFor(packaged.load());
    EXPECT_TRUE(packaged.updateAvailable());
    EXPECT_EQ(packaged.whyCannotUpdateItself(), UpdateError::installedByPackage());
    packaged.install();
    EXPECT_FALSE(packaged.busy());
    EXPECT_EQ(packaged.status(), UpdateError::installedByPackage());
    EXPECT_EQ(server.hits("/download/Vantrel-1.2.0-linux-x86_64.tar.gz"), 1);
}

TEST_F(UpdateStoreTest, EveryFailedInstallKeepsTheCopyWholeAndLeavesNothing)
{
    struct Case
    {
        const char *what;
        std::vector<TarEntry> entries; // a stand-in archive, or the real new release when empty
        bool cut = false; // the real release cut in half
        bool wrongSignature = false;
        int downloadStatus = 200;
        bool readOnly = false;
        QString status;
    };
    const QString refused = UpdateError::cannotOpenArchive();
    std::vector<TarEntry> evil = standInRelease(QStringLiteral("1.2.0"));
    evil.push_back({QStringLiteral("../evil"), TarEntry::file, "x"});
    std::vector<TarEntry> absolute = standInRelease(QStringLiteral("1.2.0"));
    absolute.push_back({home() + QStringLiteral("/evil"), TarEntry::file, "x"});
    std::vector<TarEntry> linkOut = standInRelease(QStringLiteral("1.2.0"));
    linkOut.push_back({QStringLiteral("Vantrel/share"), TarEntry::symlink, {}, home()});
    linkOut.push_back({QStringLiteral("Vantrel/share/evil"), TarEntry::file, "x"});
    const std::vector<TarEntry> empty = {
        {QStringLiteral("Vantrel/bin/helper"), TarEntry::file, "#!/bin/sh\n", {}, 0755}};

    const std::vector<Case> cases = {
        {"wrong signature", {}, false, true, 200, false, UpdateError::cannotVerify()},
        {"truncated", {}, true, false, 200, false, refused},
        {"../evil", evil, false, false, 200, false, refused},
        {"absolute name", absolute, false, false, 200, false, refused},
        {"link out", linkOut, false, false, 200, false, refused},
        {"no bin/vantrel", empty, false, false, 200, false, UpdateError::noAppInside()},
        {"404", {}, false, false, 404, false, UpdateError::cannotDownload()},
        {"read-only prefix",
         {},
         false,
         false,
         200,
         true,
         QStringLiteral("Couldn’t prepare the update in ")},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        QString archive = newArchive();
        if (!c.entries.empty() || c.cut) {
            archive = home() + QStringLiteral("/Vantrel-1.2.0-linux-x86_64.tar.gz");
            QFile::remove(archive);
            if (c.cut) {
                QFile whole(newArchive());
                whole.open(QIODevice::ReadOnly);
                QFile part(archive);
                part.open(QIODevice::WriteOnly);
                part.write(whole.read(whole.size() / 2));
            } else {
                writeTarGz(archive, c.entries);
            }
        }
        server.offer(QStringLiteral("1.2.0"), archive,
                     signatureOf(c.wrongSignature ? oldArchive() : archive));
        server.setDownloadStatus(c.downloadStatus);
        std::optional<ReadOnlyFolder> readOnly;
        if (c.readOnly) {
            readOnly.emplace(parent);
            if (!readOnly->ok()) {
                std::printf("skipped: this file system cannot make %s read-only\n",
                            qPrintable(parent));
                continue;
            }
        }

        UpdateStore store;
        store.setInstalledRoot(root);
        installAndWait(store);
        readOnly.reset();
        EXPECT_TRUE(store.status().startsWith(c.status)) << store.status().toStdString();
        EXPECT_TRUE(store.available());
        EXPECT_EQ(versionOf(root), "Vantrel 1.1.3");
        EXPECT_EQ(entriesBeside(parent, QStringLiteral("Vantrel")), QStringList());
        EXPECT_EQ(downloadsLeft(), QStringList());
        EXPECT_FALSE(QFileInfo::exists(home() + QStringLiteral("/evil")));
    }
}

} // namespace
