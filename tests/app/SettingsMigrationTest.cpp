// An earlier version's settings brought up to this one: renamed flags keep their values, the
// relaunch flags go, and the autostart entry that version wrote at every launch follows the
// switch; run again, nothing changes.

#include "app/SettingsMigration.h"
#include "app/AutostartEntry.h"
#include "core/ClipSettings.h"
#include "core/Preferences.h"
#include "input/PermissionOnce.h"

#include "support/TestEnvironment.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

namespace {

class SettingsMigrationTest : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        QCoreApplication::setOrganizationName(QStringLiteral("quillfen"));
        QCoreApplication::setApplicationName(QStringLiteral("Vantrel"));
        qputenv("VANTREL_PREFIX", (home() + QStringLiteral("/opt/Vantrel")).toUtf8());
    }

    void write(const QString &path, const QByteArray &bytes)
    {
        QDir().mkpath(QFileInfo(path).path());
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
    }

    QString entry() const { return configHome() + QStringLiteral("/autostart/vantrel.desktop"); }
};

} // namespace

TEST_F(SettingsMigrationTest, RenamedFlagsKeepTheirValuesAndTheRelaunchGoes)
{
    writeSettings(
        "promptedScreenRecording=true\npromptedInputMonitoring=false\n"
        "promptedAccessibility=true\nnoticeShownKeyboards=true\ndidRelaunchForScreen=true\n"
        "autoStartClipping=true\narmOnLaunch=false\nclipLengthSeconds=60\n");
    write(entry(), "[Desktop Entry]\nExec=\"/home/dev/build/bin/vantrel\"\n");

    SettingsMigration::run();
    const auto settings = Preferences::open();
    EXPECT_TRUE(PermissionOnce::screenCastNoticeShown());
    EXPECT_TRUE(settings->value(QStringLiteral("noticeShownX11Keys")).toBool());
    EXPECT_TRUE(settings->value(QStringLiteral("noticeShownKeyboards")).toBool())
        << "a flag set under either name stays set";
    for (const char *gone : {"promptedScreenRecording", "promptedInputMonitoring",
                             "promptedAccessibility", "didRelaunchForScreen", "autoStartClipping"})
        EXPECT_FALSE(settings->contains(QLatin1String(gone))) << gone;
    EXPECT_TRUE(ClipSettings::keepRunning()) << "the arming the relaunch was for still happens";
    EXPECT_EQ(ClipSettings::maxDuration(), 60);
    EXPECT_FALSE(QFile::exists(entry())) << "the switch was off";
    EXPECT_EQ(settings->value(QStringLiteral("settingsVersion")).toInt(),
              SettingsMigration::currentVersion);

    // Once done, a launch leaves the entry to the switch alone.
    write(entry(), "[Desktop Entry]\nExec=\"/somewhere/vantrel\"\n");
    SettingsMigration::run();
    EXPECT_TRUE(QFile::exists(entry()));
}

TEST_F(SettingsMigrationTest, TheEntryStartsTheInstalledProgramNeverABuildFolder)
{
    writeSettings("armOnLaunch=true\n");
    write(entry(), "[Desktop Entry]\nExec=\"/home/dev/build/bin/vantrel\"\n");
    SettingsMigration::run();
    EXPECT_FALSE(QFile::exists(entry())) << "nothing installed to start";
    EXPECT_EQ(AutostartEntry::installedProgram(), QString());

    write(home() + QStringLiteral("/opt/Vantrel/bin/vantrel"), "#!/bin/sh\n");
    QFile::setPermissions(home() + QStringLiteral("/opt/Vantrel/bin/vantrel"),
                          QFile::ReadOwner | QFile::ExeOwner);
    EXPECT_EQ(AutostartEntry::apply(true), QString());
    EXPECT_EQ(AutostartEntry::startedProgram(),
              home() + QStringLiteral("/opt/Vantrel/bin/vantrel"));
    EXPECT_EQ(AutostartEntry::apply(false), QString());
    EXPECT_FALSE(QFile::exists(entry()));
}
