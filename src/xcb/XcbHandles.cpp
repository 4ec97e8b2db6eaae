#include "xcb/XcbHandles.h"

#include <mutex>

namespace Xcb {

xcb_connection_t *open(const char *display, int *screenNumber)
{
    static std::mutex connecting;
    std::scoped_lock lock(connecting);
    return xcb_connect(display, screenNumber);
}

} // namespace Xcb
