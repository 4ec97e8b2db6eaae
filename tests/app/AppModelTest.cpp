#include "app/AppModel.h"
#include "core/ClipSettings.h"
#include "input/ClipHotkey.h"

#include "support/TestEnvironment.h"

#include <QSignalSpy>

using AppModelTest = TempHomeTest;

TEST_F(AppModelTest, StartsFromTheSettingsAndWritesTheFourSettingsThrough)
{
    {
        AppModel fresh;
        EXPECT_EQ(fresh.status(), QStringLiteral("Arm recording, then press your clip key."));
        EXPECT_EQ(fresh.tab(), AppModel::Tab::home);
        EXPECT_EQ(fresh.clipLength(), 30.0);
        EXPECT_TRUE(fresh.armOnLaunch());
        EXPECT_FALSE(fresh.captureMic());
        EXPECT_EQ(fresh.mode(), RecordMode::clip);
        EXPECT_EQ(fresh.hotkeyName(), QStringLiteral("F12"));
        EXPECT_TRUE(fresh.clips().isEmpty());
        EXPECT_TRUE(fresh.packLink().isEmpty());

        fresh.setClipLength(60);
        EXPECT_EQ(ClipSettings::maxDuration(), 60.0); // at once, not at exit
        fresh.setCaptureMic(true);
        fresh.setArmOnLaunch(false);
        fresh.setMode(RecordMode::session);
        fresh.setTab(AppModel::Tab::settings);
        fresh.setStatus(QStringLiteral("Saved."));
    }
    ClipHotkey::save(87, ClipHotkey::controlKey, QStringLiteral("Ctrl+F11"));
    AppModel next;
    EXPECT_EQ(next.clipLength(), 60.0);
    EXPECT_TRUE(next.captureMic());
    EXPECT_FALSE(next.armOnLaunch());
    EXPECT_EQ(next.mode(), RecordMode::session);
    EXPECT_EQ(next.hotkeyName(), QStringLiteral("Ctrl+F11"));
    // Neither the tab nor the status line is remembered.
    EXPECT_EQ(next.tab(), AppModel::Tab::home);
    EXPECT_EQ(next.status(), QStringLiteral("Arm recording, then press your clip key."));
}

TEST_F(AppModelTest, EveryAssignmentIsAnnouncedBeforeAndAfterEvenWhenUnchanged)
{
    AppModel model;
    QStringList order;
    QObject::connect(&model, &AppModel::aboutToChange,
                     [&] { order << QStringLiteral("before:") + model.status(); });
    QObject::connect(&model, &AppModel::statusChanged,
                     [&] { order << QStringLiteral("after:") + model.status(); });
    model.setStatus(QStringLiteral("Saving clip…"));
    model.setStatus(QStringLiteral("Saving clip…"));
    EXPECT_EQ(
        order,
        (QStringList {QStringLiteral("before:Arm recording, then press your clip key."),
                      QStringLiteral("after:Saving clip…"), QStringLiteral("before:Saving clip…"),
                      QStringLiteral("after:Saving clip…")}));
    QSignalSpy tabs(&model, &AppModel::tabChanged);
    model.setTab(AppModel::Tab::library);
    EXPECT_EQ(tabs.count(), 1);
}
