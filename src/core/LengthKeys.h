#pragma once

#include <QObject>
#include <QString>

#include <array>
#include <cstdint>
#include <optional>

// Announces a change of a per-length key. One process-wide instance, `LengthKeys::notifier()`.
class LengthKeysNotifier : public QObject
{
    Q_OBJECT
signals:
    // Emitted after the binding of `seconds` was stored or cleared, on the thread that did it.
    void lengthKeyChanged(int seconds);
};

// The keys that each save one length of the replay ("the last 60 seconds"), beside the clip key,
// which saves the length chosen in the settings. Each length has a key or none; a key belongs to
// one length at most. Stored next to the clip key's binding, in the same three values: an evdev
// key code, the modifiers in the clip key's four-bit encoding and a ready-made display text
// ("clipHotkey60sKeyCode", "clipHotkey60sModifiers", "clipHotkey60sDisplay"). The display text
// is made by the key paths' own rules when the key is captured; this store never makes one.
//
// Every accessor reads or writes the preferences store at that moment.
namespace LengthKeys {

// The lengths that can have a key: the clip lengths the settings offer.
inline constexpr std::array<int, 4> lengths {15, 30, 60, 120};
bool isLength(int seconds);

struct Binding
{
    uint32_t keyCode = 0; // evdev
    uint32_t modifiers = 0; // the clip key's encoding
    QString displayName; // "Ctrl+F9"

    // The same key with the same modifiers; the display text does not count.
    bool sameKey(const Binding &other) const
    {
        return keyCode == other.keyCode && modifiers == other.modifiers;
    }
};

// None when the length has no key: nothing stored, or a key code or modifier set that is not a
// number from 1 (0 for the modifiers) to 2^32-1, or a length that is not one of `lengths`.
std::optional<Binding> binding(int seconds);

// Stores the key of `seconds`. Any other length that had the same key loses it (a key saves one
// length). Emits lengthKeyChanged for each length that changed. Does nothing for a length that is
// not one of `lengths` or a key code of 0.
void save(int seconds, const Binding &binding);
// The length has no key any more.
void clear(int seconds);

// The length whose key this is, if any.
std::optional<int> lengthOf(uint32_t keyCode, uint32_t modifiers);
// The longest length that has a key; 0 when none has.
int longestBound();

LengthKeysNotifier &notifier();

} // namespace LengthKeys
