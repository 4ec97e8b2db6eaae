#include "update/UpdateTestSupport.h"

#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"
#include "update/InstalledCopy.h"
#include "update/UpdateError.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <csignal>

using namespace std::chrono_literals;

namespace {

class InstalledCopyTest : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        parent = home() + QStringLiteral("/opt");
        root = parent + QStringLiteral("/Vantrel");
    }
    QStringList leftovers() const { return entriesBeside(parent, QStringLiteral("Vantrel")); }

    QString parent;
    QString root;
};

TEST_F(InstalledCopyTest, ACopyIsReplacedWholeAndNothingIsLeftBeside)
{
    InstalledCopy::installFrom(oldArchive(), root);
    EXPECT_EQ(versionOf(root), "Vantrel 1.1.3");
    QStringList steps;
    InstalledCopy::installFrom(newArchive(), root,
                               [&steps](const char *step) { steps << QLatin1String(step); });
    EXPECT_EQ(steps, QStringList({"staged", "unpacked", "swapped"}));
    EXPECT_EQ(versionOf(root), "Vantrel 1.2.0");
    EXPECT_TRUE(QFileInfo::exists(root + QStringLiteral("/share/applications/vantrel.desktop")));
    EXPECT_EQ(leftovers(), QStringList());

    // A failed install keeps the copy as it was, and its staging folder goes too.
    const QString broken = home() + QStringLiteral("/broken.tar.gz");
    writeTarGz(broken, {{QStringLiteral("Vantrel/bin/tool"), TarEntry::file, "x", {}, 0755}});
    EXPECT_THROW(InstalledCopy::installFrom(broken, root), UpdateError);
    EXPECT_EQ(versionOf(root), "Vantrel 1.2.0");
    EXPECT_EQ(leftovers(), QStringList());

    // A folder that is not a copy of Vantrel is never swapped out (and later deleted).
    const QString elsewhere = home() + QStringLiteral("/Documents");
    QDir().mkpath(elsewhere);
    QFile note(elsewhere + QStringLiteral("/note.txt"));
    ASSERT_TRUE(note.open(QIODevice::WriteOnly));
    note.close();
    EXPECT_THROW(InstalledCopy::installFrom(newArchive(), elsewhere), UpdateError);
    EXPECT_TRUE(QFileInfo::exists(elsewhere + QStringLiteral("/note.txt")));
    EXPECT_EQ(entriesBeside(home(), QStringLiteral("Documents")).filter(QStringLiteral("staging")),
              QStringList());
}

TEST_F(InstalledCopyTest, AKilledInstallLeavesARunnableCopyAndTheNextOneCleansUp)
{
    InstalledCopy::installFrom(oldArchive(), root);
    const std::vector<std::pair<std::string, QString>> stops = {
        {"staged", "Vantrel 1.1.3"}, {"unpacked", "Vantrel 1.1.3"}, {"swapped", "Vantrel 1.2.0"}};
    for (const auto &[step, expected] : stops) {
        {
            ChildProcess install(
                {VANTREL_INSTALL_STEP, newArchive().toStdString(), root.toStdString(), step});
            std::optional<std::string> line;
            while ((line = install.readLine(60s)) && *line != step) { }
            ASSERT_EQ(line, step);
            install.signal(SIGKILL);
            EXPECT_EQ(install.wait(10s), 128 + SIGKILL);
        }
        EXPECT_EQ(versionOf(root), expected) << "killed after " << step;
        EXPECT_EQ(leftovers().size(), 1) << "killed after " << step;

        // Put the old copy back for the next round; the install removes the leftover first.
        InstalledCopy::installFrom(oldArchive(), root);
        EXPECT_EQ(versionOf(root), "Vantrel 1.1.3");
        EXPECT_EQ(leftovers(), QStringList());
    }

    // On a file system that cannot exchange folders, the old copy waits in the staging folder
    // between two renames; a crash there is repaired from it.
    const QString staging = parent + QStringLiteral("/.vantrel-staging-crashed");
    QDir().mkpath(staging);
    ASSERT_TRUE(QDir().rename(root, staging + QStringLiteral("/.previous")));
    InstalledCopy::removeLeftovers(root);
    EXPECT_EQ(versionOf(root), "Vantrel 1.1.3");
    EXPECT_EQ(leftovers(), QStringList());
}

TEST_F(InstalledCopyTest, OnlyACopyWithThePackagesMarkerBelongsToThePackageManager)
{
    const QString prefix = home() + QStringLiteral("/usr");
    const QString program = prefix + QStringLiteral("/bin/vantrel");
    QDir().mkpath(prefix + QStringLiteral("/bin"));
    QFile(program).open(QIODevice::WriteOnly);
    EXPECT_FALSE(InstalledCopy::managedByPackage(program));
    // The marker must be a file where the .deb puts it, beside the program's own prefix.
    QDir().mkpath(prefix + QStringLiteral("/share/vantrel/package-managed"));
    EXPECT_FALSE(InstalledCopy::managedByPackage(program));
    QDir(prefix + QStringLiteral("/share/vantrel/package-managed")).removeRecursively();
    QFile(prefix + QStringLiteral("/share/vantrel/package-managed")).open(QIODevice::WriteOnly);
    EXPECT_TRUE(InstalledCopy::managedByPackage(program));
    // The test program itself runs from a build folder.
    EXPECT_FALSE(InstalledCopy::managedByPackage());
}

} // namespace
