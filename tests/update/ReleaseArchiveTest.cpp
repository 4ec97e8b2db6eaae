#include "update/UpdateTestSupport.h"

#include "support/TestEnvironment.h"
#include "update/ReleaseArchive.h"
#include "update/ReleaseSignature.h"
#include "update/UpdateError.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

class ReleaseArchiveTest : public TempHomeTest
{
protected:
    QString path(const QString &name) const { return home() + QLatin1Char('/') + name; }

    // The text unpacking `entries` into a fresh folder throws ("" when it works), and that
    // nothing appeared outside that folder.
    QString unpackError(const std::vector<TarEntry> &entries)
    {
        const QString archive = path(QStringLiteral("a.tar.gz"));
        writeTarGz(archive, entries);
        QDir(path(QStringLiteral("into"))).removeRecursively();
        QDir().mkpath(path(QStringLiteral("into")));
        try {
            ReleaseArchive::unpack(archive, path(QStringLiteral("into")));
        } catch (const UpdateError &error) {
            return error.text();
        }
        return {};
    }
};

TEST_F(ReleaseArchiveTest, SignaturesHoldOnlyForTheSignedBytesAndTheBuiltInKey)
{
    const QString archive = path(QStringLiteral("r.tar.gz"));
    ASSERT_TRUE(QFile::copy(newArchive(), archive));
    const QByteArray signature = signatureOf(archive);
    ASSERT_EQ(signature.size(), 64);
    EXPECT_TRUE(ReleaseSignature::verify(archive, signature));

    // The release's own .sig (written by scripts/package) is the same check.
    QFile packaged(newArchive() + QStringLiteral(".sig"));
    ASSERT_TRUE(packaged.open(QIODevice::ReadOnly));
    EXPECT_TRUE(ReleaseSignature::verify(newArchive(), packaged.readAll()));

    EXPECT_FALSE(ReleaseSignature::verify(oldArchive(), signature));
    EXPECT_FALSE(ReleaseSignature::verify(archive, signature.left(63)));
    EXPECT_FALSE(ReleaseSignature::verify(archive, {}));
    QByteArray otherKey = ReleaseSignature::builtInKey();
    otherKey[0] = char(otherKey[0] ^ 1);
    EXPECT_FALSE(ReleaseSignature::verify(archive, signature, otherKey));
    EXPECT_FALSE(ReleaseSignature::verify(path(QStringLiteral("missing")), signature));

    // One flipped byte in the middle of the archive.
    QFile file(archive);
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    file.seek(file.size() / 2);
    const char byte = file.peek(1).at(0);
    file.write(QByteArray(1, char(byte ^ 0x40)));
    file.close();
    EXPECT_FALSE(ReleaseSignature::verify(archive, signature));
}

TEST_F(ReleaseArchiveTest, OnlyPlainFilesAndFoldersInsideTheFolderAreUnpacked)
{
    const QString refused = UpdateError::cannotOpenArchive();
    const QString outside = path(QStringLiteral("evil"));
    std::vector<TarEntry> release = standInRelease(QStringLiteral("1.2.0"));
    EXPECT_EQ(unpackError(release), "");
    EXPECT_TRUE(QFileInfo(path(QStringLiteral("into/Vantrel/bin/vantrel"))).isExecutable());

    const auto with = [&release](TarEntry extra) {
        std::vector<TarEntry> entries = release;
        entries.push_back(std::move(extra));
        return entries;
    };
    EXPECT_EQ(unpackError(with({QStringLiteral("../evil"), TarEntry::file, "x"})), refused);
    EXPECT_EQ(unpackError(with({QStringLiteral("Vantrel/../../evil"), TarEntry::file, "x"})),
              refused);
    EXPECT_EQ(unpackError(with({outside, TarEntry::file, "x"})), refused);
    EXPECT_FALSE(QFileInfo::exists(outside));

    // A link pointing out, then a file written through it.
    EXPECT_EQ(unpackError(with({QStringLiteral("Vantrel/out"), TarEntry::symlink, {}, home()})),
              refused);
    EXPECT_EQ(unpackError({{QStringLiteral("Vantrel"), TarEntry::folder, {}, {}, 0755},
                           {QStringLiteral("Vantrel/out"), TarEntry::symlink, {}, home()},
                           {QStringLiteral("Vantrel/out/evil"), TarEntry::file, "x"}}),
              refused);
    EXPECT_FALSE(QFileInfo::exists(outside));
    // Even a link that stays inside, and hard links of any kind.
    EXPECT_EQ(unpackError(with(
                  {QStringLiteral("Vantrel/v"), TarEntry::symlink, {}, QStringLiteral("bin")})),
              refused);
    EXPECT_EQ(unpackError(with({QStringLiteral("Vantrel/h"),
                                TarEntry::hardlink,
                                {},
                                QStringLiteral("Vantrel/VERSION")})),
              refused);
    EXPECT_EQ(unpackError({}), refused);

    // Set-id bits and permissions for others are not kept.
    EXPECT_EQ(
        unpackError(with({QStringLiteral("Vantrel/bin/helper"), TarEntry::file, "x", {}, 06777})),
        "");
    struct stat info
    {
    };
    ASSERT_EQ(::stat(QFile::encodeName(path(QStringLiteral("into/Vantrel/bin/helper"))).constData(),
                     &info),
              0);
    EXPECT_EQ(info.st_mode & 07777, 0755u);

    // A damaged archive: the real release cut in half, and bytes that are no archive.
    QFile whole(newArchive());
    ASSERT_TRUE(whole.open(QIODevice::ReadOnly));
    const QString truncated = path(QStringLiteral("cut.tar.gz"));
    QFile cut(truncated);
    ASSERT_TRUE(cut.open(QIODevice::WriteOnly));
    cut.write(whole.read(whole.size() / 2));
    cut.close();
    QDir().mkpath(path(QStringLiteral("cut")));
    EXPECT_THROW(ReleaseArchive::unpack(truncated, path(QStringLiteral("cut"))), UpdateError);
    EXPECT_THROW(
        ReleaseArchive::unpack(newArchive() + QStringLiteral(".sig"), path(QStringLiteral("cut"))),
        UpdateError);
}

TEST_F(ReleaseArchiveTest, TheProgramIsTheFirstFolderWithAnExecutableBinVantrel)
{
    const QString unpacked = path(QStringLiteral("u"));
    const auto add = [&unpacked](const QString &file, bool executable) {
        const QString full = unpacked + QLatin1Char('/') + file;
        QDir().mkpath(QFileInfo(full).absolutePath());
        QFile f(full);
        f.open(QIODevice::WriteOnly);
        f.write("#!/bin/sh\n");
        f.close();
        if (executable)
            f.setPermissions(f.permissions() | QFile::ExeOwner);
    };
    QDir().mkpath(unpacked);
    EXPECT_THROW(ReleaseArchive::findApp(unpacked), UpdateError);
    add(QStringLiteral("A-docs/readme"), false);
    add(QStringLiteral("B/bin/vantrel"), false);
    add(QStringLiteral("C/bin/other"), true);
    try {
        ReleaseArchive::findApp(unpacked);
        ADD_FAILURE() << "found a program where there is none";
    } catch (const UpdateError &error) {
        EXPECT_EQ(error.text(), UpdateError::noAppInside());
    }
    add(QStringLiteral("E/bin/vantrel"), true);
    add(QStringLiteral("D/bin/vantrel"), true);
    EXPECT_EQ(ReleaseArchive::findApp(unpacked), unpacked + QStringLiteral("/D"));
}

} // namespace
