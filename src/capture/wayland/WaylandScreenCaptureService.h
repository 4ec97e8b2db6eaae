#pragma once

#include "capture/ScreenStream.h"

#include <chrono>
#include <memory>

class ScreenCastPortal;

// The capture service of a Wayland session. The desktop decides what may be recorded, so
// shareableContent() is where consent happens: it opens a ScreenCast session through the desktop
// portal (the desktop may ask the user which monitor to share) and lists that one monitor. The
// restore token the portal returns is kept in the settings store and offered at the next arming,
// so the desktop asks once, not at every arming. makeStream() reads the granted monitor through
// PipeWire. One service stands for one arming.
class WaylandScreenCaptureService final : public ScreenCaptureService
{
public:
    // The settings key of the restore token.
    static const char *const restoreTokenKey;

    // `consentTime`: how long the user may take to answer the desktop's question.
    explicit WaylandScreenCaptureService(
        std::chrono::milliseconds consentTime = std::chrono::minutes(2));
    ~WaylandScreenCaptureService() override;

    // Throws CaptureNotAllowed when the user cancelled or the desktop refused, std::runtime_error
    // when the portal is missing or failed.
    ShareableContent shareableContent() override;
    // Wayland does not tell clients where the pointer is; the portal chose the monitor anyway.
    std::optional<std::pair<int, int>> pointerLocation() override { return std::nullopt; }
    std::unique_ptr<ScreenStream> makeStream(const CaptureDisplay &display,
                                             const StreamConfiguration &config) override;

private:
    const std::chrono::milliseconds m_consentTime;
    std::shared_ptr<ScreenCastPortal> m_portal; // the session of this arming, once opened
};
