#pragma once

#include "capture/ScreenStream.h"
#include "xcb/XcbHandles.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

// What the X server says about its monitors and the pointer, shared by the capture service (which
// lists them) and the stream (which watches its monitor disappear).
namespace X11Displays {

struct Connection
{
    Xcb::Connection connection;
    xcb_screen_t *screen = nullptr; // owned by the connection's setup data
};

// Connects to `displayName` (DISPLAY when null). Throws std::runtime_error saying which display
// could not be reached.
Connection connect(const char *displayName = nullptr);

// The active RandR monitors in root-window pixels, identified by their name atom (an output's
// name such as "DUMMY1"). A server without RandR 1.5 monitors, or with none active, gives the
// whole screen as one primary display with id 0. Empty only when the connection has failed.
std::vector<CaptureDisplay> monitors(xcb_connection_t *connection, xcb_screen_t *screen);

std::optional<std::pair<int, int>> pointer(xcb_connection_t *connection, xcb_screen_t *screen);

// "X error 8 (BadMatch) on request 130.4" for the log.
std::string describe(const xcb_generic_error_t &error);

} // namespace X11Displays
