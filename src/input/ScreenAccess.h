#pragma once

#include <QString>

// Whether the program may record the screen. An X11 session lets every client read the screen;
// a Wayland session records through the desktop portal, whose consent is asked when arming and
// remembered by its restore token, so only a Wayland session without that portal counts as not
// granted.
namespace ScreenAccess {

// Never shows anything.
bool isGranted();

// Why the screen may not be recorded, in the user's words; empty when it may.
QString whyNotGranted();

// Called by the capture engine when it is armed without access: the one-time notice, or the
// help afterwards. Returns whether access is there now.
bool request();

} // namespace ScreenAccess
