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

// The capture pipeline's settings. Each accessor goes to the preferences store at the moment it
// is called, so a change made anywhere is seen by the next read on any thread; the clip length
// alone is kept in memory (see maxDuration).
namespace ClipSettings {

inline constexpr int fps = 60;
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

bool captureMic(); // false when missing
void setCaptureMic(bool on);

RecordMode mode(); // `session` only for exactly "session"
void setMode(RecordMode mode);

bool armOnLaunch(); // true when missing
void setArmOnLaunch(bool on);

bool keepRunning(); // false when missing
void setKeepRunning(bool on);

} // namespace ClipSettings
