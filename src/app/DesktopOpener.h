#pragma once

#include <QObject>
#include <QUrl>

#include <functional>

// Opens a file or folder with the desktop's own handler (xdg-open, which asks the desktop's
// settings), and tells when nothing opened it: Qt's own openUrl starts xdg-open and reports
// success before xdg-open has found that no file manager or player is set up. Main thread only.
namespace DesktopOpener {

// Runs xdg-open for `url`; `onFailure` runs on the main thread when it reports that nothing could
// open it (a handler that is still starting after a few seconds counts as having opened it).
// Nothing runs once `context` is gone. $VANTREL_OPEN_COMMAND names another program to run in
// xdg-open's place (tests give one that records what it was asked).
void open(const QUrl &url, QObject *context, std::function<void()> onFailure);

} // namespace DesktopOpener
