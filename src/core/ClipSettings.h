#pragma once

#include <QString>

#include <array>
#include <optional>

// What to do while armed. Stored and compared by its text value, exactly.
class RecordMode
{
public:
    enum Value { clip, session };

    constexpr RecordMode(Value value)
        : m_value(value)
    {
    }
    // No value for any text but "clip" and "session" (case matters).
    static std::optional<RecordMode> fromText(const QString &text);
    QString text() const;

    constexpr operator Value() const { return m_value; }

private:
    Value m_value;
};

// How the screen is recorded: the size and the frame rate, which together set what the encoder
// costs. A computer that cannot keep up with 1080p at 60 frames a second records smoothly at
// half the pixels a second, either at a lower resolution (motion stays fluid: games) or at a lower
// frame rate (text stays sharp: desktop work). Stored by its text value.
class CaptureQuality
{
public:
    enum Value { full, smooth720p60, sharp1080p30 };

    constexpr CaptureQuality(Value value)
        : m_value(value)
    {
    }
    // No value for any text but "1080p60", "720p60" and "1080p30".
    static std::optional<CaptureQuality> fromText(const QString &text);
    QString text() const;
    // The longer side of the capture at most, in pixels, and the frames a second.
    int maxSide() const { return m_value == smooth720p60 ? 1280 : 1920; }
    int fps() const { return m_value == sharp1080p30 ? 30 : 60; }

    constexpr operator Value() const { return m_value; }

private:
    Value m_value;
};

// The capture pipeline's settings. Each accessor goes to the preferences store at the moment it
// is called, so a change made anywhere is seen by the next read on any thread; the clip length
// alone is kept in memory (see maxDuration).
namespace ClipSettings {

inline constexpr int fps = 60; // the most the capture records
inline constexpr std::array<double, 4> lengthOptions {15, 30, 60, 120};

// The clip length in seconds: the stored value when it is exactly one of `lengthOptions`,
// otherwise 30. Writes store any value as given. The replay buffer asks for it with every frame
// and packet it stores, hundreds of times a second, so it is read from the store once and then
// kept: a write through setMaxDuration() is seen at once, a change made to the file by anyone
// else once reload() has been called (the engine does at each arming, PreferencesWatch when the
// file changes).
double maxDuration();
void setMaxDuration(double seconds);
void reload();

// What the replay keeps, in seconds: the longest length anyone can ask for with a key, which is
// the clip length or the longest length that has a key of its own (LengthKeys), whichever is
// longer. Kept in memory like the clip length, and read afresh by reload() (which a new or
// cleared length key calls). A save of a longer length (the tray offers every length) gets what
// the replay holds, and says so.
double keptDuration();

// After each save the replay starts empty, so the next clip never repeats the last one; the
// session file is not affected. False when missing.
bool clearAfterSave();
void setClearAfterSave(bool on);

// Where the system audio comes from: empty for "All system sound" (the default output, as a
// whole), otherwise the `application.name` of the one application to record (see AppSoundSource).
// Read at each arming. Empty when missing.
QString soundSource();
void setSoundSource(const QString &applicationName);

bool captureMic(); // false when missing
void setCaptureMic(bool on);

RecordMode mode(); // `session` only for exactly "session"
void setMode(RecordMode mode);

bool armOnLaunch(); // true when missing
void setArmOnLaunch(bool on);

bool keepRunning(); // false when missing
void setKeepRunning(bool on);

CaptureQuality quality(); // `full` unless one of the others is stored
void setQuality(CaptureQuality quality);

} // namespace ClipSettings
