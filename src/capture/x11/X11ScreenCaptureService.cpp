#include "capture/x11/X11ScreenCaptureService.h"

#include "capture/x11/X11Displays.h"
#include "capture/x11/X11ScreenStream.h"

#include <stdexcept>

X11ScreenCaptureService::X11ScreenCaptureService(std::string displayName)
    : m_displayName(std::move(displayName))
{
    X11Displays::connect(m_displayName.empty() ? nullptr : m_displayName.c_str());
}

ShareableContent X11ScreenCaptureService::shareableContent()
{
    X11Displays::Connection x =
        X11Displays::connect(m_displayName.empty() ? nullptr : m_displayName.c_str());
    ShareableContent content;
    content.displays = X11Displays::monitors(x.connection.get(), x.screen);
    if (content.displays.empty())
        throw std::runtime_error("The X server closed the connection while listing displays.");
    return content;
}

std::optional<std::pair<int, int>> X11ScreenCaptureService::pointerLocation()
{
    try {
        X11Displays::Connection x =
            X11Displays::connect(m_displayName.empty() ? nullptr : m_displayName.c_str());
        return X11Displays::pointer(x.connection.get(), x.screen);
    } catch (const std::runtime_error &) {
        return std::nullopt;
    }
}

std::unique_ptr<ScreenStream> X11ScreenCaptureService::makeStream(const CaptureDisplay &display,
                                                                  const StreamConfiguration &config)
{
    return std::make_unique<X11ScreenStream>(display, config, m_displayName);
}
