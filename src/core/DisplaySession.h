#pragma once

#include <QString>

// Which kind of desktop session this program runs in, and so where the screen comes from.
namespace DisplaySession {

enum class Capture { x11, wayland, none };

struct Choice
{
    Capture capture = Capture::none;
    QString why; // for the log: what decided it
};

// VANTREL_CAPTURE=x11|wayland forces a backend. Otherwise a Wayland session (WAYLAND_DISPLAY, or
// XDG_SESSION_TYPE=wayland) records through the desktop portal when it offers ScreenCast, and
// through nothing when it does not: DISPLAY there is XWayland, whose root window shows only the
// X11 programs. An X11 session records through X11; no display at all, through nothing.
// Asks the portal over D-Bus (a few milliseconds) in a Wayland session.
Choice chooseCapture();

// The session is a Wayland one, whatever DISPLAY says.
bool isWayland();

// The user chose the backend with VANTREL_CAPTURE.
bool isForced();

// What the user reads when a Wayland session has no portal that can share the screen: what is
// missing and how to get it.
QString withoutScreenCastText();

} // namespace DisplaySession
