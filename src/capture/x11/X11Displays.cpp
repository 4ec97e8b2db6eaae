#include "capture/x11/X11Displays.h"

#include <xcb/randr.h>

#include <stdexcept>

namespace X11Displays {

Connection connect(const char *displayName)
{
    int screenNumber = 0;
    Xcb::Connection connection(Xcb::open(displayName, &screenNumber));
    const char *shownName = displayName ? displayName : std::getenv("DISPLAY");
    const std::string name = shownName ? shownName : "";
    if (!connection || xcb_connection_has_error(connection.get())) {
        if (name.empty())
            throw std::runtime_error("No X display to capture: DISPLAY is not set.");
        throw std::runtime_error("Could not open the X display \"" + name +
                                 "\": no X server answers there.");
    }
    xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(connection.get()));
    for (int i = 0; i < screenNumber && screens.rem; ++i)
        xcb_screen_next(&screens);
    if (!screens.rem)
        throw std::runtime_error("The X display \"" + name + "\" has no screen " +
                                 std::to_string(screenNumber) + ".");
    return {std::move(connection), screens.data};
}

std::vector<CaptureDisplay> monitors(xcb_connection_t *connection, xcb_screen_t *screen)
{
    std::vector<CaptureDisplay> displays;
    if (xcb_connection_has_error(connection))
        return displays;

    // get_monitors is RandR 1.5; an older server answers with an error, and the whole screen is
    // the one display then.
    Xcb::Reply<xcb_randr_query_version_reply_t> version(xcb_randr_query_version_reply(
        connection, xcb_randr_query_version(connection, 1, 5), nullptr));
    if (version && (version->major_version > 1 || version->minor_version >= 5)) {
        Xcb::Reply<xcb_randr_get_monitors_reply_t> reply(xcb_randr_get_monitors_reply(
            connection, xcb_randr_get_monitors(connection, screen->root, 1), nullptr));
        if (reply) {
            auto it = xcb_randr_get_monitors_monitors_iterator(reply.get());
            for (; it.rem; xcb_randr_monitor_info_next(&it)) {
                const xcb_randr_monitor_info_t &info = *it.data;
                if (info.width == 0 || info.height == 0)
                    continue;
                displays.push_back(
                    {info.name, info.x, info.y, info.width, info.height, bool(info.primary)});
            }
        }
    }
    if (displays.empty() && !xcb_connection_has_error(connection))
        displays.push_back({0, 0, 0, screen->width_in_pixels, screen->height_in_pixels, true});
    return displays;
}

std::optional<std::pair<int, int>> pointer(xcb_connection_t *connection, xcb_screen_t *screen)
{
    Xcb::Reply<xcb_query_pointer_reply_t> reply(
        xcb_query_pointer_reply(connection, xcb_query_pointer(connection, screen->root), nullptr));
    // same_screen is false when the pointer is on another X screen of this display: its
    // coordinates then mean nothing here.
    if (!reply || !reply->same_screen)
        return std::nullopt;
    return std::pair<int, int> {reply->root_x, reply->root_y};
}

std::string describe(const xcb_generic_error_t &error)
{
    static const char *const names[] = {
        "",          "BadRequest", "BadValue",    "BadWindow",   "BadPixmap", "BadAtom",
        "BadCursor", "BadFont",    "BadMatch",    "BadDrawable", "BadAccess", "BadAlloc",
        "BadColor",  "BadGC",      "BadIDChoice", "BadName",     "BadLength", "BadImplementation"};
    std::string text = "X error " + std::to_string(error.error_code);
    if (error.error_code < std::size(names) && error.error_code > 0)
        text += std::string(" (") + names[error.error_code] + ")";
    return text + " on request " + std::to_string(error.major_code) + "." +
        std::to_string(error.minor_code);
}

} // namespace X11Displays
