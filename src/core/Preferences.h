#pragma once

#include <QSettings>

#include <cstdint>
#include <memory>
#include <optional>

// The user's preferences store: ~/.config/quillfen/Vantrel.conf. Every reader opens it anew, so
// a value written anywhere in the program is seen by the next read, on any thread.
namespace Preferences {

std::unique_ptr<QSettings> open();

// A stored integer that another program may have written: none when the key is missing or holds
// anything but a whole number from 0 to 2^32-1.
std::optional<uint32_t> storedUint32(const QSettings &store, const QString &key);

} // namespace Preferences
