#include "capture/wayland/WaylandScreenCaptureService.h"

#include "capture/wayland/PipeWireScreenStream.h"
#include "capture/wayland/ScreenCastPortal.h"
#include "core/DesktopPortal.h"
#include "core/Log.h"
#include "core/Preferences.h"

const char *const WaylandScreenCaptureService::restoreTokenKey = "screenCastRestoreToken";

WaylandScreenCaptureService::WaylandScreenCaptureService(std::chrono::milliseconds consentTime)
    : m_consentTime(consentTime)
{
}

WaylandScreenCaptureService::~WaylandScreenCaptureService() = default;

ShareableContent WaylandScreenCaptureService::shareableContent()
{
    const QString key = QString::fromLatin1(restoreTokenKey);
    const QString token = Preferences::open()->value(key).toString();
    auto portal = std::make_shared<ScreenCastPortal>();
    ScreenCastPortal::Stream stream;
    try {
        stream = portal->open(token, m_consentTime);
    } catch (const ScreenCastPortal::Refused &refused) {
        throw CaptureNotAllowed(refused.what(), refused.cancelled);
    }
    // Each token is good for one restore; the next arming needs the new one.
    if (!stream.restoreToken.isEmpty())
        Preferences::open()->setValue(key, stream.restoreToken);
    m_portal = portal;

    CaptureDisplay display;
    display.displayID = stream.node;
    display.primary = true;
    // A portal that does not say the size gets a common one; the frames are scaled to it.
    display.width = stream.width > 0 ? stream.width : 1920;
    display.height = stream.height > 0 ? stream.height : 1080;
    return {{display}};
}

std::unique_ptr<ScreenStream>
WaylandScreenCaptureService::makeStream(const CaptureDisplay &display,
                                        const StreamConfiguration &config)
{
    if (!m_portal)
        throw std::runtime_error("No screen was shared: list the shareable content first.");
    return std::make_unique<PipeWireScreenStream>(m_portal, display.displayID, config);
}
