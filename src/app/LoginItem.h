#pragma once

#include <QString>

// Starting with the desktop session: an XDG autostart entry,
// ~/.config/autostart/vantrel.desktop, pointing at this program.
namespace LoginItem {

QString entryPath();
// Writes (or rewrites) the entry for `executable`. Returns an empty string on success, else why
// it failed.
QString registerItem(const QString &executable);

} // namespace LoginItem
