#include "core/ClipSettings.h"

#include "core/Preferences.h"

#include <algorithm>

namespace {

const QString clipLengthKey = QStringLiteral("clipLengthSeconds");
const QString captureMicKey = QStringLiteral("captureMic");
const QString recordModeKey = QStringLiteral("recordMode");
const QString armOnLaunchKey = QStringLiteral("armOnLaunch");
const QString keepRunningKey = QStringLiteral("keepRunning");

bool readBool(const QString &key, bool whenMissing)
{
    const auto store = Preferences::open();
    return store->contains(key) ? store->value(key).toBool() : whenMissing;
}

void write(const QString &key, const QVariant &value)
{
    Preferences::open()->setValue(key, value);
}

} // namespace

std::optional<RecordMode> RecordMode::fromText(const QString &text)
{
    if (text == QLatin1String("clip"))
        return RecordMode(clip);
    if (text == QLatin1String("session"))
        return RecordMode(session);
    return std::nullopt;
}

QString RecordMode::text() const
{
    return m_value == session ? QStringLiteral("session") : QStringLiteral("clip");
}

namespace ClipSettings {

double maxDuration()
{
    // A value that is not a number reads as 0, like a missing key.
    const double stored = Preferences::open()->value(clipLengthKey).toDouble();
    const bool offered =
        std::find(lengthOptions.begin(), lengthOptions.end(), stored) != lengthOptions.end();
    return offered ? stored : 30.0;
}

void setMaxDuration(double seconds)
{
    write(clipLengthKey, seconds);
}

bool captureMic()
{
    return readBool(captureMicKey, false);
}
void setCaptureMic(bool on)
{
    write(captureMicKey, on);
}

RecordMode mode()
{
    const QString stored = Preferences::open()->value(recordModeKey).toString();
    return RecordMode::fromText(stored).value_or(RecordMode::clip);
}

void setMode(RecordMode mode)
{
    write(recordModeKey, mode.text());
}

bool armOnLaunch()
{
    return readBool(armOnLaunchKey, true);
}
void setArmOnLaunch(bool on)
{
    write(armOnLaunchKey, on);
}

bool keepRunning()
{
    return readBool(keepRunningKey, false);
}
void setKeepRunning(bool on)
{
    write(keepRunningKey, on);
}

} // namespace ClipSettings
