#pragma once

#include "media/VideoFrame.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

// The step between the capture and the encoder: a captured BGRA frame into the planes the
// encoder takes, I420 for the software encoder and NV12 for the hardware ones, with libyuv
// (BT.601 limited range, the matrix the encoder is told about).
class FrameConverter
{
public:
    // The formats it can write.
    static bool supports(AVPixelFormat format);

    // Converts `frame` into `picture`, whose format, width and height say what to make. False
    // when the sizes differ, the frame has no pixels or the format is not supported.
    static bool convert(const VideoFrame &frame, AVFrame &picture);
};
