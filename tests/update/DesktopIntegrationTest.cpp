#include "update/UpdateTestSupport.h"

#include "support/TestEnvironment.h"
#include "update/DesktopIntegration.h"
#include "update/InstalledCopy.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

namespace {

using DesktopIntegrationTest = TempHomeTest;

TEST_F(DesktopIntegrationTest, TheCommandLauncherAndLinksReachTheInstalledCopy)
{
    const QString root = home() + QStringLiteral("/opt/Vantrel with 'quotes'");
    InstalledCopy::installFrom(newArchive(), root);
    const QString mimeApps = configHome() + QStringLiteral("/mimeapps.list");
    {
        QFile file(mimeApps);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("[Default Applications]\ntext/html=firefox.desktop\n"
                   "x-scheme-handler/vantrel=old.desktop\n\n[Added Associations]\n"
                   "image/png=gimp.desktop\n");
    }

    for (int round = 0; round < 2; ++round) // a second install changes nothing
        EXPECT_EQ(DesktopIntegration::install(root), QStringList());

    const QFileInfo link(home() + QStringLiteral("/.local/bin/vantrel"));
    EXPECT_TRUE(link.isSymLink());
    EXPECT_EQ(link.symLinkTarget(), root + QStringLiteral("/bin/vantrel"));
    // Started through the link, the copy still finds its VERSION file.
    EXPECT_EQ(versionOf(link.absolutePath() + QStringLiteral("/..")), "Vantrel 1.2.0");

    const QString entry =
        readTextFile(home() + QStringLiteral("/.local/share/applications/vantrel.desktop"));
    EXPECT_TRUE(
        entry.contains(QStringLiteral("\nExec=\"") + root + QStringLiteral("/bin/vantrel\" %u\n")))
        << entry.toStdString();
    EXPECT_TRUE(entry.contains(QStringLiteral("MimeType=x-scheme-handler/vantrel;")));
    EXPECT_TRUE(QFileInfo::exists(
        home() + QStringLiteral("/.local/share/icons/hicolor/scalable/apps/vantrel.svg")));
    EXPECT_EQ(readTextFile(mimeApps),
              "[Default Applications]\ntext/html=firefox.desktop\n"
              "x-scheme-handler/vantrel=vantrel.desktop\n\n[Added Associations]\n"
              "image/png=gimp.desktop\n");

    // Someone else's program at ~/.local/bin/vantrel stays, and the rest is still done.
    QFile::remove(link.filePath());
    QFile other(link.filePath());
    ASSERT_TRUE(other.open(QIODevice::WriteOnly));
    other.close();
    const QStringList problems = DesktopIntegration::install(root);
    ASSERT_EQ(problems.size(), 1);
    EXPECT_TRUE(problems.first().contains(QStringLiteral("not a link")));
    EXPECT_FALSE(QFileInfo(link.filePath()).isSymLink());

    // A mimeapps.list without the section gets one.
    const QString fresh = home() + QStringLiteral("/fresh.list");
    ASSERT_TRUE(DesktopIntegration::setDefaultHandler(
        fresh, QStringLiteral("x-scheme-handler/vantrel"), QStringLiteral("vantrel.desktop")));
    EXPECT_EQ(readTextFile(fresh),
              "[Default Applications]\nx-scheme-handler/vantrel=vantrel.desktop\n");
}

} // namespace
