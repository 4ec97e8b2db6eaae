#include "input/ScreenAccess.h"

#include "input/PermissionOnce.h"

#include <QString>

namespace ScreenAccess {

bool isGranted()
{
    // XWayland would let an X11 capture start, but it would see only the X11 windows and black
    // elsewhere; better to say so than to record black.
    return qEnvironmentVariable("XDG_SESSION_TYPE") != QLatin1String("wayland") &&
        qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

bool request()
{
    return PermissionOnce::promptScreenRecordingIfNeeded();
}

} // namespace ScreenAccess
