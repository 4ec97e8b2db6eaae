#pragma once

#include "media/MediaTime.h"

#include <cstdint>
#include <memory>

// One captured screen frame, as the screen stream delivers it, at the capture size and stamped on
// the monotonic capture clock. Its pixels are either 32-bit BGRA (opaque: the fourth byte is
// whatever the X server leaves there, often 0, not an alpha to honour) or I420, the encoder's own
// input, when the source converted them as it took them. `owner` keeps the pixels alive (a
// pooled buffer returns to its pool when the last holder lets go), so a frame may travel across
// queues.
struct VideoFrame
{
    // `repeat`: nothing changed on screen, and the previous picture comes again with a new time
    // so that a still screen still fills the clip's video track (a capture hands one on about
    // once a second). `idle`: nothing changed, and there is no picture to repeat; it carries no
    // pixels and is not encoded.
    enum class Status { complete, repeat, idle };
    enum class Layout { bgra, i420 };

    std::shared_ptr<const void> owner;
    const uint8_t *pixels = nullptr; // BGRA, or I420's Y plane
    int stride = 0; // bytes per row of `pixels`
    int width = 0;
    int height = 0;
    MediaTime pts;
    MediaTime duration; // may be invalid: 1/60 s is assumed then
    Status status = Status::complete;
    Layout layout = Layout::bgra;
    const uint8_t *u = nullptr; // I420's chroma planes, (width + 1) / 2 by (height + 1) / 2
    const uint8_t *v = nullptr;
    int chromaStride = 0;

    static VideoFrame idle(int width, int height, MediaTime pts, MediaTime duration)
    {
        VideoFrame frame;
        frame.width = width;
        frame.height = height;
        frame.pts = pts;
        frame.duration = duration;
        frame.status = Status::idle;
        return frame;
    }
};
