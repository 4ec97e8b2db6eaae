#pragma once

#include "input/PermissionNotifier.h"

// The words of the permission notices: what is missing, what the user can do about it, and what
// keeps working meanwhile.
namespace PermissionTexts {

PermissionNotice screenCast(bool isFirstPrompt);

// `x11KeysWork`: the clip key already works in X11 applications without keyboard access.
PermissionNotice keyboards(bool isFirstPrompt, bool x11KeysWork);

// `keyboardsReadable`: the clip key already works everywhere through the keyboards.
PermissionNotice x11Keys(bool isFirstPrompt, bool keyboardsReadable);

// The hotkey manager's own help, shown when the user asks how to make the clip key work in
// other applications.
PermissionNotice hotkeyHelp(bool keyboardsReadable, bool x11KeysWork);

// What to do for the clip key in other applications on a Wayland desktop whose portal has no
// global shortcuts, in the words of the desktop named by `currentDesktop` (XDG_CURRENT_DESKTOP):
// a key of the desktop's own that runs the link that saves a clip, or the input group.
QString withoutDesktopShortcuts(const QString &currentDesktop);

} // namespace PermissionTexts
