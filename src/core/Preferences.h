#pragma once

#include <QSettings>

#include <memory>

// The user's preferences store: ~/.config/quillfen/Vantrel.conf. Every reader opens it anew, so
// a value written anywhere in the program is seen by the next read, on any thread.
namespace Preferences {

std::unique_ptr<QSettings> open();

} // namespace Preferences
