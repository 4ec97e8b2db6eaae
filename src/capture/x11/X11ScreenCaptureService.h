#pragma once

#include "capture/ScreenStream.h"

#include <string>

// The capture service of an X11 session: lists the RandR monitors, finds the pointer, and makes
// X11ScreenStreams. Every query opens a short connection of its own, so the service keeps working
// across an X server restart and can be used from any thread.
class X11ScreenCaptureService final : public ScreenCaptureService
{
public:
    // Checks that the display can be reached; throws std::runtime_error saying why not.
    explicit X11ScreenCaptureService(std::string displayName = {});

    ShareableContent shareableContent() override;
    std::optional<std::pair<int, int>> pointerLocation() override;
    std::unique_ptr<ScreenStream> makeStream(const CaptureDisplay &display,
                                             const StreamConfiguration &config) override;

private:
    const std::string m_displayName; // empty: DISPLAY
};
