#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
#include <libavutil/frame.h>
}

#include <memory>
#include <span>
#include <string>

// The H.264 encoder families the video encoder can run on, one opener each, and owners for the
// libavcodec handles it keeps.
namespace VideoEncoderBackends {

struct CodecContextDeleter
{
    void operator()(AVCodecContext *context) const { avcodec_free_context(&context); }
};
struct FrameDeleter
{
    void operator()(AVFrame *frame) const { av_frame_free(&frame); }
};
struct PacketDeleter
{
    void operator()(AVPacket *packet) const { av_packet_free(&packet); }
};
struct BufferDeleter
{
    void operator()(AVBufferRef *buffer) const { av_buffer_unref(&buffer); }
};
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using BufferPtr = std::unique_ptr<AVBufferRef, BufferDeleter>;

// av_strerror's text for a libav status.
std::string errorText(int status);

// An encoder that accepted the fixed settings at the requested size.
struct Opened
{
    CodecContextPtr context;
    // Set when the encoder takes device frames: each converted frame is uploaded into one of
    // these first.
    BufferPtr hwFrames;
    // What the captured BGRA frames are converted to before they reach the encoder (or the
    // upload).
    AVPixelFormat inputFormat = AV_PIX_FMT_NONE;
};

struct Family
{
    const char *name; // the libavcodec encoder's name, as VANTREL_ENCODER gives it
    // Returns 0 and fills `opened`, or a negative libav status and why, in a few words.
    int (*open)(int width, int height, Opened &opened, std::string &reason);
};

// In the order they are tried: the hardware encoders first, the software one last.
std::span<const Family> families();

// Runs the family's opener. The libav error lines logged meanwhile on this thread (often the
// only place the real cause appears, like "Cannot load libcuda.so.1") go into `reason` instead
// of standard error.
int open(const Family &family, int width, int height, Opened &opened, std::string &reason);

} // namespace VideoEncoderBackends
