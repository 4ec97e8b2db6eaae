#include "core/ClipSettings.h"

#include "core/LengthKeys.h"
#include "core/Preferences.h"

#include <algorithm>
#include <atomic>

namespace {

const QString clipLengthKey = QStringLiteral("clipLengthSeconds");
const QString captureMicKey = QStringLiteral("captureMic");
const QString recordModeKey = QStringLiteral("recordMode");
const QString armOnLaunchKey = QStringLiteral("armOnLaunch");
const QString keepRunningKey = QStringLiteral("keepRunning");
const QString qualityKey = QStringLiteral("captureQuality");
const QString clearAfterSaveKey = QStringLiteral("clearAfterSave");
const QString soundSourceKey = QStringLiteral("soundSource");

// The clip length as last read or written; not a length at all until then.
std::atomic<double> keptLength {-1};
// What the replay keeps, the same way.
std::atomic<double> keptReplay {-1};

double offeredOr30(double seconds)
{
    const bool offered =
        std::find(ClipSettings::lengthOptions.begin(), ClipSettings::lengthOptions.end(),
                  seconds) != ClipSettings::lengthOptions.end();
    return offered ? seconds : 30.0;
}

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

std::optional<CaptureQuality> CaptureQuality::fromText(const QString &text)
{
    if (text == QLatin1String("1080p60"))
        return CaptureQuality(full);
    if (text == QLatin1String("720p60"))
        return CaptureQuality(smooth720p60);
    if (text == QLatin1String("1080p30"))
        return CaptureQuality(sharp1080p30);
    return std::nullopt;
}

QString CaptureQuality::text() const
{
    switch (m_value) {
    case smooth720p60:
        return QStringLiteral("720p60");
    case sharp1080p30:
        return QStringLiteral("1080p30");
    case full:
        break;
    }
    return QStringLiteral("1080p60");
}

namespace ClipSettings {

double maxDuration()
{
    const double kept = keptLength.load(std::memory_order_relaxed);
    if (kept > 0)
        return kept;
    // A value that is not a number reads as 0, like a missing key.
    const double stored = offeredOr30(Preferences::open()->value(clipLengthKey).toDouble());
    keptLength.store(stored, std::memory_order_relaxed);
    return stored;
}

void setMaxDuration(double seconds)
{
    write(clipLengthKey, seconds);
    keptLength.store(offeredOr30(seconds), std::memory_order_relaxed);
    keptReplay.store(-1, std::memory_order_relaxed);
}

void reload()
{
    keptLength.store(-1, std::memory_order_relaxed);
    keptReplay.store(-1, std::memory_order_relaxed);
}

double keptDuration()
{
    const double kept = keptReplay.load(std::memory_order_relaxed);
    if (kept > 0)
        return kept;
    const double longest = std::max(maxDuration(), double(LengthKeys::longestBound()));
    keptReplay.store(longest, std::memory_order_relaxed);
    return longest;
}

bool clearAfterSave()
{
    return readBool(clearAfterSaveKey, false);
}
void setClearAfterSave(bool on)
{
    write(clearAfterSaveKey, on);
}

QString soundSource()
{
    return Preferences::open()->value(soundSourceKey).toString();
}
void setSoundSource(const QString &applicationName)
{
    write(soundSourceKey, applicationName);
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

CaptureQuality quality()
{
    const QString stored = Preferences::open()->value(qualityKey).toString();
    return CaptureQuality::fromText(stored).value_or(CaptureQuality::full);
}

void setQuality(CaptureQuality quality)
{
    write(qualityKey, quality.text());
}

} // namespace ClipSettings
