#pragma once

// Whether the program may record the screen. An X11 session lets every client read the screen,
// so there is nothing to grant there; a Wayland session would need the desktop portal's consent,
// which this program does not ask for yet, so it counts as not granted.
namespace ScreenAccess {

// Never shows anything.
bool isGranted();

// Called by the capture engine when it is armed without access: the one-time notice, or the
// help afterwards. Returns whether access is there now.
bool request();

} // namespace ScreenAccess
