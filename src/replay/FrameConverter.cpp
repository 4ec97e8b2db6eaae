#include "replay/FrameConverter.h"

#include <libyuv/convert_from_argb.h>

bool FrameConverter::supports(AVPixelFormat format)
{
    return format == AV_PIX_FMT_YUV420P || format == AV_PIX_FMT_NV12;
}

bool FrameConverter::convert(const VideoFrame &frame, AVFrame &picture)
{
    if (!frame.pixels || frame.width != picture.width || frame.height != picture.height ||
        frame.stride < frame.width * 4)
        return false;
    // libyuv names formats by their order in a 32-bit word: its "ARGB" is B, G, R, A in memory,
    // the order the capture delivers.
    switch (picture.format) {
    case AV_PIX_FMT_YUV420P:
        return libyuv::ARGBToI420(frame.pixels, frame.stride, picture.data[0], picture.linesize[0],
                                  picture.data[1], picture.linesize[1], picture.data[2],
                                  picture.linesize[2], frame.width, frame.height) == 0;
    case AV_PIX_FMT_NV12:
        return libyuv::ARGBToNV12(frame.pixels, frame.stride, picture.data[0], picture.linesize[0],
                                  picture.data[1], picture.linesize[1], frame.width,
                                  frame.height) == 0;
    default:
        return false;
    }
}
