#include "input/ScreenAccess.h"

#include "core/DisplaySession.h"
#include "input/PermissionOnce.h"

namespace ScreenAccess {

bool isGranted()
{
    // An X11 session lets every client read the screen. A Wayland desktop asks the user itself
    // when Vantrel arms (and remembers the answer), so there is nothing to grant beforehand, as
    // long as its portal is there to ask: without it nothing can be recorded (XWayland would let
    // an X11 capture start, but it would record black around the X11 windows).
    if (!DisplaySession::isWayland())
        return true;
    return DisplaySession::chooseCapture().capture != DisplaySession::Capture::none;
}

QString whyNotGranted()
{
    return isGranted() ? QString() : DisplaySession::withoutScreenCastText();
}

bool request()
{
    return PermissionOnce::noticeScreenCastIfNeeded();
}

} // namespace ScreenAccess
