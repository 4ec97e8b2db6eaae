#pragma once

#include <QObject>
#include <QString>

#include <cstdint>
#include <optional>

// Announces a new clip-key binding. One process-wide instance, `ClipHotkey::notifier()`.
class ClipHotkeyNotifier : public QObject
{
    Q_OBJECT
signals:
    // Emitted by `ClipHotkey::save` after all three values are stored, on the saving thread.
    void clipHotkeyChanged(const QString &displayName);
};

// The persisted binding of the global clip key: an evdev key code, a modifier set and a
// ready-made display text ("Ctrl+Shift+F12"). Every accessor reads or writes the preferences
// store at that moment. The modifier set is stored in its own four-bit encoding (below) and
// converted to X11 masks and Qt modifiers where the key paths need them.
namespace ClipHotkey {

// Stored modifier bits.
inline constexpr uint32_t controlKey = 0x1000;
inline constexpr uint32_t altKey = 0x800; // Mod1
inline constexpr uint32_t shiftKey = 0x200;
inline constexpr uint32_t superKey = 0x100; // Mod4, the key with the logo
inline constexpr uint32_t allModifiers = controlKey | altKey | shiftKey | superKey;

// X11 modifier masks of the same four keys.
inline constexpr uint16_t x11Shift = 0x1;
inline constexpr uint16_t x11Lock = 0x2; // Caps Lock
inline constexpr uint16_t x11Control = 0x4;
inline constexpr uint16_t x11Alt = 0x8; // Mod1
inline constexpr uint16_t x11NumLock = 0x10; // Mod2
inline constexpr uint16_t x11Super = 0x40; // Mod4

inline constexpr uint32_t defaultKeyCode = 88; // KEY_F12

uint32_t keyCode(); // 88 when missing or unusable
void setKeyCode(uint32_t code);
uint32_t modifiers(); // 0 when missing or unusable
void setModifiers(uint32_t modifiers);
QString displayName(); // "F12" when missing or empty
void setDisplayName(const QString &text);

// Stores the three values, then emits clipHotkeyChanged with the display text.
void save(uint32_t keyCode, uint32_t modifiers, const QString &displayName);
ClipHotkeyNotifier &notifier();

// Conversions; bits other than the four modifiers are ignored both ways.
uint32_t modifiersFromQt(Qt::KeyboardModifiers modifiers);
Qt::KeyboardModifiers qtModifiers(uint32_t stored);
uint32_t modifiersFromX11(uint16_t mask);
uint16_t x11Modifiers(uint32_t stored);
// The modifiers of a key press that count for a binding: Shift, Control, Alt and Meta, without
// the keypad and group-switch flags.
Qt::KeyboardModifiers normalized(Qt::KeyboardModifiers modifiers);

// The display text for a key press: "Ctrl+", "Alt+", "Shift+", "Super+" in that order for the
// modifiers present, then the key's name. `characters` is what the key types without modifiers,
// when the press came with an event (it names letter and digit keys in the user's layout).
QString displayName(uint32_t keyCode, uint32_t modifiers,
                    const std::optional<QString> &characters = std::nullopt);
// The key alone: a name from the table, else the typed letter or digit, else "Key <code>".
QString keyTitle(uint32_t keyCode, const std::optional<QString> &characters = std::nullopt);

} // namespace ClipHotkey
