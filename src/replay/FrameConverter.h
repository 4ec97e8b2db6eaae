#pragma once

#include "media/VideoFrame.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

// The step between the capture and the encoder: a captured frame into the planes the encoder
// takes, I420 for the software encoder and NV12 for the hardware ones, with libyuv. BGRA is
// converted with the BT.601 limited-range matrix, the one the encoder is told about; an I420
// frame (converted by its source with the same matrix) is copied or interleaved.
class FrameConverter
{
public:
    // The formats it can write.
    static bool supports(AVPixelFormat format);

    // Whether `frame` has pixels, the given size, and rows long enough for its layout.
    static bool fits(const VideoFrame &frame, int width, int height);

    // Converts `frame` into `picture`, whose format, width and height say what to make. False
    // when the sizes differ, the frame has no pixels or the format is not supported.
    static bool convert(const VideoFrame &frame, AVFrame &picture);
};
