#pragma once

#include "media/MediaTime.h"

#include <cstdint>
#include <memory>

// One captured screen frame, as the screen stream delivers it: 32-bit BGRA pixels at the capture
// size, stamped on the monotonic capture clock. Frames are opaque: the fourth byte is whatever the
// X server leaves there (often 0), not an alpha to honour. `owner` keeps the pixels alive (a pooled
// buffer returns to its pool when the last holder lets go), so a frame may travel across queues.
struct VideoFrame
{
    // `idle`: nothing changed on screen since the previous frame; it carries no new pixels and
    // is not encoded.
    enum class Status { complete, idle };

    std::shared_ptr<const void> owner;
    const uint8_t *pixels = nullptr;
    int stride = 0; // bytes per row
    int width = 0;
    int height = 0;
    MediaTime pts;
    MediaTime duration; // may be invalid: 1/60 s is assumed then
    Status status = Status::complete;
};
