#include "replay/FrameConverter.h"

#include <libyuv/convert.h>
#include <libyuv/convert_from.h>
#include <libyuv/convert_from_argb.h>

bool FrameConverter::supports(AVPixelFormat format)
{
    return format == AV_PIX_FMT_YUV420P || format == AV_PIX_FMT_NV12;
}

bool FrameConverter::fits(const VideoFrame &frame, int width, int height)
{
    if (!frame.pixels || frame.width != width || frame.height != height)
        return false;
    if (frame.layout == VideoFrame::Layout::bgra)
        return frame.stride >= frame.width * 4;
    return frame.u && frame.v && frame.stride >= frame.width &&
        frame.chromaStride >= (frame.width + 1) / 2;
}

bool FrameConverter::convert(const VideoFrame &frame, AVFrame &picture)
{
    if (!fits(frame, picture.width, picture.height))
        return false;
    const int width = frame.width;
    const int height = frame.height;
    if (frame.layout == VideoFrame::Layout::i420) {
        switch (picture.format) {
        case AV_PIX_FMT_YUV420P:
            return libyuv::I420Copy(frame.pixels, frame.stride, frame.u, frame.chromaStride,
                                    frame.v, frame.chromaStride, picture.data[0],
                                    picture.linesize[0], picture.data[1], picture.linesize[1],
                                    picture.data[2], picture.linesize[2], width, height) == 0;
        case AV_PIX_FMT_NV12:
            return libyuv::I420ToNV12(frame.pixels, frame.stride, frame.u, frame.chromaStride,
                                      frame.v, frame.chromaStride, picture.data[0],
                                      picture.linesize[0], picture.data[1], picture.linesize[1],
                                      width, height) == 0;
        default:
            return false;
        }
    }
    // libyuv names formats by their order in a 32-bit word: its "ARGB" is B, G, R, A in memory,
    // the order the capture delivers.
    switch (picture.format) {
    case AV_PIX_FMT_YUV420P:
        return libyuv::ARGBToI420(frame.pixels, frame.stride, picture.data[0], picture.linesize[0],
                                  picture.data[1], picture.linesize[1], picture.data[2],
                                  picture.linesize[2], width, height) == 0;
    case AV_PIX_FMT_NV12:
        return libyuv::ARGBToNV12(frame.pixels, frame.stride, picture.data[0], picture.linesize[0],
                                  picture.data[1], picture.linesize[1], width, height) == 0;
    default:
        return false;
    }
}
