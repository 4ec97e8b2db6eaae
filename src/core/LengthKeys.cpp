#include "core/LengthKeys.h"

#include "core/ClipSettings.h"
#include "core/Preferences.h"

#include <algorithm>
#include <vector>

namespace LengthKeys {

namespace {

QString keyName(int seconds, const char *what)
{
    return QStringLiteral("clipHotkey%1s%2").arg(seconds).arg(QLatin1String(what));
}

std::optional<Binding> read(const QSettings &store, int seconds)
{
    const auto code = Preferences::storedUint32(store, keyName(seconds, "KeyCode"));
    if (!code || *code == 0)
        return std::nullopt;
    const auto modifiers = Preferences::storedUint32(store, keyName(seconds, "Modifiers"));
    if (!modifiers && store.contains(keyName(seconds, "Modifiers")))
        return std::nullopt;
    return Binding {*code, modifiers.value_or(0),
                    store.value(keyName(seconds, "Display")).toString()};
}

void remove(QSettings &store, int seconds)
{
    for (const char *what : {"KeyCode", "Modifiers", "Display"})
        store.remove(keyName(seconds, what));
}

void announce(const std::vector<int> &changed)
{
    // What the buffer keeps follows the longest length with a key.
    ClipSettings::reload();
    for (int seconds : changed)
        emit notifier().lengthKeyChanged(seconds);
}

} // namespace

bool isLength(int seconds)
{
    return std::find(lengths.begin(), lengths.end(), seconds) != lengths.end();
}

std::optional<Binding> binding(int seconds)
{
    if (!isLength(seconds))
        return std::nullopt;
    return read(*Preferences::open(), seconds);
}

void save(int seconds, const Binding &binding)
{
    if (!isLength(seconds) || binding.keyCode == 0)
        return;
    std::vector<int> changed {seconds};
    {
        const auto store = Preferences::open();
        for (int other : lengths) {
            const auto held = read(*store, other);
            if (other != seconds && held && held->sameKey(binding)) {
                remove(*store, other);
                changed.push_back(other);
            }
        }
        store->setValue(keyName(seconds, "KeyCode"), qulonglong(binding.keyCode));
        store->setValue(keyName(seconds, "Modifiers"), qulonglong(binding.modifiers));
        store->setValue(keyName(seconds, "Display"), binding.displayName);
        store->sync();
    }
    announce(changed);
}

void clear(int seconds)
{
    if (!isLength(seconds))
        return;
    {
        const auto store = Preferences::open();
        remove(*store, seconds);
        store->sync();
    }
    announce({seconds});
}

std::optional<int> lengthOf(uint32_t keyCode, uint32_t modifiers)
{
    const auto store = Preferences::open();
    for (int seconds : lengths) {
        const auto held = read(*store, seconds);
        if (held && held->keyCode == keyCode && held->modifiers == modifiers)
            return seconds;
    }
    return std::nullopt;
}

int longestBound()
{
    const auto store = Preferences::open();
    int longest = 0;
    for (int seconds : lengths) {
        if (read(*store, seconds))
            longest = std::max(longest, seconds);
    }
    return longest;
}

LengthKeysNotifier &notifier()
{
    static LengthKeysNotifier instance;
    return instance;
}

} // namespace LengthKeys
