#pragma once

#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>

// Owners for the XCB objects this library holds: every reply and error is freed by its owner, and
// every connection is closed by its owner, on every path out.
namespace Xcb {

struct FreeDeleter
{
    void operator()(void *pointer) const { std::free(pointer); }
};

template<typename T> using Reply = std::unique_ptr<T, FreeDeleter>;
using Error = Reply<xcb_generic_error_t>;
using Event = Reply<xcb_generic_event_t>;

struct Disconnect
{
    void operator()(xcb_connection_t *connection) const { xcb_disconnect(connection); }
};
using Connection = std::unique_ptr<xcb_connection_t, Disconnect>;

// xcb_connect, one at a time in this process: libXau finds the authority file through a static
// buffer, so two threads connecting at once (the capture and the key paths do) can read a
// half-written file name.
xcb_connection_t *open(const char *display, int *screenNumber);

// Connects to $DISPLAY. Null when there is no display or the connection failed; `screen` gets the
// default screen's root data when the connection succeeded.
inline Connection connect(xcb_screen_t **screen = nullptr)
{
    const char *display = std::getenv("DISPLAY");
    if (!display || !*display)
        return nullptr;
    int screenNumber = 0;
    Connection connection(open(display, &screenNumber));
    if (xcb_connection_has_error(connection.get()))
        return nullptr;
    xcb_screen_iterator_t it = xcb_setup_roots_iterator(xcb_get_setup(connection.get()));
    for (; it.rem && screenNumber > 0; --screenNumber)
        xcb_screen_next(&it);
    if (!it.rem)
        return nullptr;
    if (screen)
        *screen = it.data;
    return connection;
}

} // namespace Xcb
