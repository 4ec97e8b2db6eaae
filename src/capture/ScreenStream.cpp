#include "capture/ScreenStream.h"

#include "capture/wayland/WaylandScreenCaptureService.h"
#include "capture/x11/X11ScreenCaptureService.h"
#include "core/DisplaySession.h"
#include "core/Log.h"

#include <stdexcept>

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
    const DisplaySession::Choice choice = DisplaySession::chooseCapture();
    switch (choice.capture) {
    case DisplaySession::Capture::x11:
        Log::system(QStringLiteral("capture backend: x11, for %1").arg(choice.why));
        return std::make_unique<X11ScreenCaptureService>();
    case DisplaySession::Capture::wayland:
        Log::system(QStringLiteral("capture backend: wayland, for %1").arg(choice.why));
        return std::make_unique<WaylandScreenCaptureService>();
    case DisplaySession::Capture::none:
        break;
    }
    Log::system(QStringLiteral("capture backend: none, for %1").arg(choice.why));
    if (DisplaySession::isWayland() && !DisplaySession::isForced())
        throw std::runtime_error(DisplaySession::withoutScreenCastText().toStdString());
    throw std::runtime_error(choice.why.toStdString() + ".");
}
