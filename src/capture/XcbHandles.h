#pragma once

#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>

// Owners for what XCB hands out: replies and errors are malloc'd and must be freed, connections
// must be disconnected (even a failed one, which xcb_connect still returns).

struct XcbFree
{
    void operator()(void *pointer) const { std::free(pointer); }
};

template<typename T> using XcbReply = std::unique_ptr<T, XcbFree>;
using XcbError = std::unique_ptr<xcb_generic_error_t, XcbFree>;
using XcbEvent = std::unique_ptr<xcb_generic_event_t, XcbFree>;

struct XcbDisconnect
{
    void operator()(xcb_connection_t *connection) const { xcb_disconnect(connection); }
};

using XcbConnection = std::unique_ptr<xcb_connection_t, XcbDisconnect>;
