#include "input/ClipHotkey.h"

#include "core/Preferences.h"

#include <linux/input-event-codes.h>
#include <map>

namespace ClipHotkey {

namespace {

const QString keyCodeKey = QStringLiteral("clipHotkeyKeyCode");
const QString modifiersKey = QStringLiteral("clipHotkeyModifiers");
const QString displayKey = QStringLiteral("clipHotkeyDisplay");

std::optional<uint32_t> storedUint32(const QString &key)
{
    return Preferences::storedUint32(*Preferences::open(), key);
}

struct ModifierRow
{
    uint32_t stored;
    Qt::KeyboardModifier qt;
    uint16_t x11;
    const char *prefix;
};

// In display order.
constexpr ModifierRow modifierTable[] = {
    {controlKey, Qt::ControlModifier, x11Control, "Ctrl+"},
    {altKey, Qt::AltModifier, x11Alt, "Alt+"},
    {shiftKey, Qt::ShiftModifier, x11Shift, "Shift+"},
    {superKey, Qt::MetaModifier, x11Super, "Super+"},
};

const std::map<uint32_t, QString> &namedKeys()
{
    static const std::map<uint32_t, QString> table = {
        {KEY_ENTER, QStringLiteral("Return")},
        {KEY_TAB, QStringLiteral("Tab")},
        {KEY_SPACE, QStringLiteral("Space")},
        {KEY_BACKSPACE, QStringLiteral("Delete")},
        {KEY_ESC, QStringLiteral("Esc")},
        {KEY_KPENTER, QStringLiteral("Enter")},
        {KEY_F1, QStringLiteral("F1")},
        {KEY_F2, QStringLiteral("F2")},
        {KEY_F3, QStringLiteral("F3")},
        {KEY_F4, QStringLiteral("F4")},
        {KEY_F5, QStringLiteral("F5")},
        {KEY_F6, QStringLiteral("F6")},
        {KEY_F7, QStringLiteral("F7")},
        {KEY_F8, QStringLiteral("F8")},
        {KEY_F9, QStringLiteral("F9")},
        {KEY_F10, QStringLiteral("F10")},
        {KEY_F11, QStringLiteral("F11")},
        {KEY_F12, QStringLiteral("F12")},
        {KEY_F13, QStringLiteral("F13")},
        {KEY_F14, QStringLiteral("F14")},
        {KEY_F15, QStringLiteral("F15")},
        {KEY_F16, QStringLiteral("F16")},
        {KEY_F17, QStringLiteral("F17")},
        {KEY_F18, QStringLiteral("F18")},
        {KEY_F19, QStringLiteral("F19")},
        {KEY_F20, QStringLiteral("F20")},
        {KEY_HOME, QStringLiteral("Home")},
        {KEY_PAGEUP, QStringLiteral("Page Up")},
        {KEY_DELETE, QStringLiteral("Fwd Del")},
        {KEY_END, QStringLiteral("End")},
        {KEY_PAGEDOWN, QStringLiteral("Page Down")},
        {KEY_LEFT, QStringLiteral("←")},
        {KEY_RIGHT, QStringLiteral("→")},
        {KEY_DOWN, QStringLiteral("↓")},
        {KEY_UP, QStringLiteral("↑")},
    };
    return table;
}

} // namespace

uint32_t keyCode()
{
    return storedUint32(keyCodeKey).value_or(defaultKeyCode);
}
void setKeyCode(uint32_t code)
{
    Preferences::open()->setValue(keyCodeKey, qulonglong(code));
}

uint32_t modifiers()
{
    return storedUint32(modifiersKey).value_or(0);
}
void setModifiers(uint32_t modifiers)
{
    Preferences::open()->setValue(modifiersKey, qulonglong(modifiers));
}

QString displayName()
{
    const QString stored = Preferences::open()->value(displayKey).toString();
    return stored.isEmpty() ? QStringLiteral("F12") : stored;
}
void setDisplayName(const QString &text)
{
    Preferences::open()->setValue(displayKey, text);
}

void save(uint32_t code, uint32_t modifiers, const QString &text)
{
    {
        const auto store = Preferences::open();
        store->setValue(keyCodeKey, qulonglong(code));
        store->setValue(modifiersKey, qulonglong(modifiers));
        store->setValue(displayKey, text);
        store->sync();
    }
    emit notifier().clipHotkeyChanged(text);
}

ClipHotkeyNotifier &notifier()
{
    static ClipHotkeyNotifier instance;
    return instance;
}

uint32_t modifiersFromQt(Qt::KeyboardModifiers modifiers)
{
    uint32_t stored = 0;
    for (const auto &row : modifierTable)
        if (modifiers.testFlag(row.qt))
            stored |= row.stored;
    return stored;
}

Qt::KeyboardModifiers qtModifiers(uint32_t stored)
{
    Qt::KeyboardModifiers modifiers;
    for (const auto &row : modifierTable)
        if (stored & row.stored)
            modifiers |= row.qt;
    return modifiers;
}

uint32_t modifiersFromX11(uint16_t mask)
{
    uint32_t stored = 0;
    for (const auto &row : modifierTable)
        if (mask & row.x11)
            stored |= row.stored;
    return stored;
}

uint16_t x11Modifiers(uint32_t stored)
{
    uint16_t mask = 0;
    for (const auto &row : modifierTable)
        if (stored & row.stored)
            mask |= row.x11;
    return mask;
}

Qt::KeyboardModifiers normalized(Qt::KeyboardModifiers modifiers)
{
    return modifiers &
        (Qt::ShiftModifier | Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier);
}

QString keyTitle(uint32_t code, const std::optional<QString> &characters)
{
    const auto &table = namedKeys();
    if (auto found = table.find(code); found != table.end())
        return found->second;
    if (characters && !characters->isEmpty()) {
        const QChar first = characters->toUpper().at(0);
        if (first.isLetterOrNumber())
            return QString(first);
    }
    return QStringLiteral("Key %1").arg(code);
}

QString displayName(uint32_t code, uint32_t stored, const std::optional<QString> &characters)
{
    QString text;
    for (const auto &row : modifierTable)
        if (stored & row.stored)
            text += QLatin1String(row.prefix);
    return text + keyTitle(code, characters);
}

} // namespace ClipHotkey
