#pragma once

#include <QString>
#include <QStringList>

// What makes an installed copy part of the user's desktop: the `vantrel` command, the launcher
// entry with its icon, and the vantrel:// links. Everything goes into the user's own folders
// (~/.local/bin, $XDG_DATA_HOME, $XDG_CONFIG_HOME); nothing needs root.
namespace DesktopIntegration {

// Links ~/.local/bin/vantrel to the copy at `root`, installs its desktop entry (started by its
// full path, so the launcher works whether or not ~/.local/bin is on PATH) and icons, and makes
// it the default handler of x-scheme-handler/vantrel. Returns what could not be done, one line
// each; the copy itself runs either way.
QStringList install(const QString &root);

// Sets `handler` as the default application for `mimeType` in the mimeapps.list at `path`,
// keeping every other line of the file as it was.
bool setDefaultHandler(const QString &path, const QString &mimeType, const QString &handler);

} // namespace DesktopIntegration
