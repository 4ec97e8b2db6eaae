#include "app/SettingsMigration.h"

#include "app/AutostartEntry.h"
#include "core/ClipSettings.h"
#include "core/Log.h"
#include "core/Preferences.h"

namespace SettingsMigration {

namespace {

const QString versionKey = QStringLiteral("settingsVersion");

void toVersion2(QSettings &settings)
{
    const struct
    {
        const char *from;
        const char *to;
    } renamed[] = {
        {"promptedScreenRecording", "noticeShownScreenCast"},
        {"promptedInputMonitoring", "noticeShownKeyboards"},
        {"promptedAccessibility", "noticeShownX11Keys"},
    };
    for (const auto &key : renamed) {
        const QString from = QString::fromLatin1(key.from);
        if (!settings.contains(from))
            continue;
        // A flag only ever goes from false to true: one set under either name stays set.
        const QString to = QString::fromLatin1(key.to);
        settings.setValue(to, settings.value(from).toBool() || settings.value(to).toBool());
        settings.remove(from);
    }
    if (settings.value(QStringLiteral("autoStartClipping")).toBool())
        ClipSettings::setKeepRunning(true);
    settings.remove(QStringLiteral("autoStartClipping"));
    settings.remove(QStringLiteral("didRelaunchForScreen"));

    if (const QString error = AutostartEntry::apply(ClipSettings::armOnLaunch()); !error.isEmpty())
        Log::system(QStringLiteral("settings: %1").arg(error));
}

} // namespace

void run()
{
    const auto settings = Preferences::open();
    const int version = settings->value(versionKey, 1).toInt();
    if (version >= currentVersion)
        return;
    toVersion2(*settings);
    settings->setValue(versionKey, currentVersion);
    settings->sync();
}

} // namespace SettingsMigration
