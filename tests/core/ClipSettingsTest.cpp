#include "core/ClipSettings.h"
#include "core/LengthKeys.h"
#include "core/Log.h"
#include "core/Paths.h"
#include "core/Preferences.h"
#include "core/PreferencesWatch.h"

#include "support/TestEnvironment.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QTest>

using Settings = TempHomeTest;

TEST_F(Settings, DefaultsAndRoundTripsThroughTheStoreFile)
{
    EXPECT_EQ(ClipSettings::maxDuration(), 30.0);
    EXPECT_FALSE(ClipSettings::captureMic());
    EXPECT_EQ(ClipSettings::mode(), RecordMode::clip);
    EXPECT_TRUE(ClipSettings::armOnLaunch());
    EXPECT_FALSE(ClipSettings::keepRunning());

    for (double length : ClipSettings::lengthOptions) {
        ClipSettings::setMaxDuration(length);
        EXPECT_EQ(ClipSettings::maxDuration(), length);
    }
    ClipSettings::setCaptureMic(true);
    ClipSettings::setMode(RecordMode::session);
    ClipSettings::setArmOnLaunch(false);
    ClipSettings::setKeepRunning(true);
    EXPECT_TRUE(ClipSettings::captureMic());
    EXPECT_EQ(ClipSettings::mode(), RecordMode::session);
    EXPECT_FALSE(ClipSettings::armOnLaunch());
    EXPECT_TRUE(ClipSettings::keepRunning());

    // The values live in the user's config folder, under the names other tools may read.
    const QString file = configHome() + QStringLiteral("/quillfen/Vantrel.conf");
    EXPECT_EQ(Preferences::open()->fileName(), file);
    const QString text = readTextFile(file);
    EXPECT_TRUE(text.contains(QStringLiteral("clipLengthSeconds=120"))) << text.toStdString();
    EXPECT_TRUE(text.contains(QStringLiteral("recordMode=session")));
    EXPECT_TRUE(text.contains(QStringLiteral("armOnLaunch=false")));
}

TEST_F(Settings, TheClipLengthIsKeptUntilTheFileChangesFromOutside)
{
    int argc = 0;
    QCoreApplication application(argc, nullptr);
    ClipSettings::setMaxDuration(60);
    const PreferencesWatch watch;
    // Another program (or an editor) writes the file behind our back.
    {
        QSettings other(Preferences::open()->fileName(), QSettings::IniFormat);
        other.setValue(QStringLiteral("clipLengthSeconds"), 15);
    }
    // What is kept stands until the watch has seen the change, then the file wins.
    EXPECT_EQ(ClipSettings::maxDuration(), 60.0);
    EXPECT_TRUE(QTest::qWaitFor([] { return ClipSettings::maxDuration() == 15.0; }, 5000));
    // reload() reads the file afresh at once (the engine does at every arming).
    {
        QSettings other(Preferences::open()->fileName(), QSettings::IniFormat);
        other.setValue(QStringLiteral("clipLengthSeconds"), 120);
    }
    ClipSettings::reload();
    EXPECT_EQ(ClipSettings::maxDuration(), 120.0);
}

TEST_F(Settings, UnusableStoredValuesReadAsTheirDefaults)
{
    for (double stored : {45.0, 0.0, 30.0000001, -15.0, 119.99999}) {
        ClipSettings::setMaxDuration(stored);
        EXPECT_EQ(ClipSettings::maxDuration(), 30.0) << stored;
    }
    const auto store = Preferences::open();
    store->setValue(QStringLiteral("clipLengthSeconds"), QStringLiteral("sixty"));
    store->setValue(QStringLiteral("recordMode"), QStringLiteral("Session"));
    store->sync();
    ClipSettings::reload();
    EXPECT_EQ(ClipSettings::maxDuration(), 30.0);
    EXPECT_EQ(ClipSettings::mode(), RecordMode::clip);
    store->setValue(QStringLiteral("recordMode"), QStringLiteral("session "));
    store->sync();
    EXPECT_EQ(ClipSettings::mode(), RecordMode::clip);

    EXPECT_FALSE(RecordMode::fromText(QStringLiteral("CLIP")).has_value());
    EXPECT_EQ(RecordMode::fromText(QStringLiteral("session")), RecordMode::session);
    EXPECT_EQ(RecordMode(RecordMode::clip).text(), QStringLiteral("clip"));

    // A store edited by hand while the program runs is seen at the next read; the clip length
    // once it is read again (what the watch on the file does).
    QFile file(store->fileName());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write("[General]\nclipLengthSeconds=60\narmOnLaunch=false\n");
    file.close();
    ClipSettings::reload();
    EXPECT_EQ(ClipSettings::maxDuration(), 60.0);
    EXPECT_FALSE(ClipSettings::armOnLaunch());
}

TEST_F(Settings, RecordingsFolderAndLogFileLiveInTheUsersFolders)
{
    const QString recordings = Paths::recordings();
    EXPECT_EQ(recordings, home() + QStringLiteral("/Videos/Vantrel"));
    EXPECT_TRUE(QFileInfo(recordings).isDir());
    // Removed by the user: back at the next ask.
    ASSERT_TRUE(QDir(recordings).removeRecursively());
    EXPECT_TRUE(QFileInfo(Paths::recordings()).isDir());

    const QString log = Paths::logFile();
    EXPECT_EQ(log, stateHome() + QStringLiteral("/Vantrel/Vantrel.log"));
    EXPECT_FALSE(QFileInfo::exists(log));
    Log::appendLine(Paths::logFile(), QStringLiteral("first"));
    Log::appendLine(Paths::logFile(), QStringLiteral("second"));
    const QStringList lines = readTextFile(log).split(QLatin1Char('\n'));
    ASSERT_EQ(lines.size(), 3);
    EXPECT_TRUE(lines[0].endsWith(QStringLiteral(" +0000 first")));
    EXPECT_TRUE(lines[1].endsWith(QStringLiteral(" +0000 second")));
}

TEST_F(Settings, FoldersThatCannotBeMadeAreSurvived)
{
    // A plain file where the videos folder and the state folder should be.
    for (const char *name : {"/Videos", "/.local/state"}) {
        ASSERT_TRUE(QDir().mkpath(QFileInfo(home() + QLatin1String(name)).path()));
        QFile blocker(home() + QLatin1String(name));
        ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    }
    EXPECT_EQ(Paths::recordings(), home() + QStringLiteral("/Videos/Vantrel"));
    EXPECT_FALSE(QFileInfo(Paths::recordings()).isDir());
    Log::appendLine(Paths::logFile(), QStringLiteral("goes nowhere"));
    EXPECT_FALSE(QFileInfo::exists(Paths::logFile()));
}

TEST_F(Settings, LengthKeysDecideWhatTheReplayKeeps)
{
    int argc = 0;
    QCoreApplication application(argc, nullptr);
    std::vector<int> announced;
    QObject::connect(&LengthKeys::notifier(), &LengthKeysNotifier::lengthKeyChanged,
                     [&](int seconds) { announced.push_back(seconds); });

    EXPECT_EQ(ClipSettings::keptDuration(), 30.0);
    for (int seconds : LengthKeys::lengths)
        EXPECT_FALSE(LengthKeys::binding(seconds).has_value()) << seconds;
    EXPECT_EQ(LengthKeys::longestBound(), 0);

    // A key of its own for the last two minutes: the replay keeps two minutes from now on.
    LengthKeys::save(120, {67, 0x1000, QStringLiteral("Ctrl+F9")});
    EXPECT_EQ(ClipSettings::keptDuration(), 120.0);
    const auto held = LengthKeys::binding(120);
    ASSERT_TRUE(held.has_value());
    EXPECT_EQ(held->keyCode, 67u);
    EXPECT_EQ(held->modifiers, 0x1000u);
    EXPECT_EQ(held->displayName, QStringLiteral("Ctrl+F9"));
    EXPECT_EQ(LengthKeys::lengthOf(67, 0x1000), 120);
    EXPECT_FALSE(LengthKeys::lengthOf(67, 0).has_value()) << "the modifiers count";
    const QString text = readTextFile(Preferences::open()->fileName());
    EXPECT_TRUE(text.contains(QStringLiteral("clipHotkey120sKeyCode=67"))) << text.toStdString();
    EXPECT_TRUE(text.contains(QStringLiteral("clipHotkey120sDisplay=Ctrl+F9")));

    // The same key for another length moves it there.
    announced.clear();
    LengthKeys::save(60, {67, 0x1000, QStringLiteral("Ctrl+F9")});
    EXPECT_EQ(announced, (std::vector<int> {60, 120}));
    EXPECT_FALSE(LengthKeys::binding(120).has_value());
    EXPECT_EQ(ClipSettings::keptDuration(), 60.0);
    // The clip length counts as much as a key: whichever is longer is kept.
    ClipSettings::setMaxDuration(120);
    EXPECT_EQ(ClipSettings::keptDuration(), 120.0);
    ClipSettings::setMaxDuration(15);
    EXPECT_EQ(ClipSettings::keptDuration(), 60.0);
    LengthKeys::clear(60);
    EXPECT_EQ(ClipSettings::keptDuration(), 15.0);

    // Lengths that are not offered have no key; unusable stored values are no key.
    LengthKeys::save(45, {67, 0, QStringLiteral("F9")});
    LengthKeys::save(30, {0, 0, QStringLiteral("nothing")});
    EXPECT_FALSE(LengthKeys::binding(45).has_value());
    EXPECT_FALSE(LengthKeys::binding(30).has_value());
    {
        const auto store = Preferences::open();
        store->setValue(QStringLiteral("clipHotkey15sKeyCode"), QStringLiteral("F9"));
        store->setValue(QStringLiteral("clipHotkey30sKeyCode"), 68);
        store->setValue(QStringLiteral("clipHotkey30sModifiers"), -1);
        store->setValue(QStringLiteral("clipHotkey60sKeyCode"), 69);
    }
    ClipSettings::reload();
    EXPECT_FALSE(LengthKeys::binding(15).has_value());
    EXPECT_FALSE(LengthKeys::binding(30).has_value());
    ASSERT_TRUE(LengthKeys::binding(60).has_value()) << "no modifiers stored: none held";
    EXPECT_EQ(LengthKeys::binding(60)->modifiers, 0u);
    EXPECT_EQ(ClipSettings::keptDuration(), 60.0);

    EXPECT_FALSE(ClipSettings::clearAfterSave());
    ClipSettings::setClearAfterSave(true);
    EXPECT_TRUE(ClipSettings::clearAfterSave());
}
