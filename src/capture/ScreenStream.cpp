#include "capture/ScreenStream.h"

#include "capture/x11/X11ScreenCaptureService.h"

#include <cstdlib>
#include <stdexcept>
#include <string_view>

std::optional<CaptureDisplay> chooseCaptureDisplay(const std::vector<CaptureDisplay> &displays,
                                                   std::optional<std::pair<int, int>> pointer)
{
    if (pointer) {
        const auto [x, y] = *pointer;
        for (const CaptureDisplay &display : displays) {
            if (x >= display.x && x < display.x + display.width && y >= display.y &&
                y < display.y + display.height)
                return display;
        }
    }
    for (const CaptureDisplay &display : displays) {
        if (display.primary)
            return display;
    }
    if (displays.empty())
        return std::nullopt;
    return displays.front();
}

std::unique_ptr<ScreenCaptureService> ScreenCaptureService::create()
{
    const char *forced = std::getenv("VANTREL_SCREEN_BACKEND");
    if (forced && *forced) {
        if (std::string_view(forced) == "x11")
            return std::make_unique<X11ScreenCaptureService>();
        throw std::runtime_error("VANTREL_SCREEN_BACKEND=" + std::string(forced) +
                                 " is not a screen capture backend; the one available is x11.");
    }
    // Under Wayland, DISPLAY usually points at XWayland, whose root window shows only the X11
    // programs: the capture would be mostly black, so say so instead.
    const char *session = std::getenv("XDG_SESSION_TYPE");
    const char *wayland = std::getenv("WAYLAND_DISPLAY");
    if ((session && std::string_view(session) == "wayland") || (wayland && *wayland))
        throw std::runtime_error("Screen capture in a Wayland session is not available yet. Set "
                                 "VANTREL_SCREEN_BACKEND=x11 to capture the X11 windows only.");
    return std::make_unique<X11ScreenCaptureService>();
}
