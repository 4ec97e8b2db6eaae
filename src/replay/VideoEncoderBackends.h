#pragma once

#include "media/FFmpegHandles.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>

// The H.264 encoder families the video encoder can run on, one opener each.
namespace VideoEncoderBackends {

// The average rate of every family, in bits per second.
inline constexpr int64_t averageBitRate = 18'000'000;

// An encoder that accepted the fixed settings at the requested size.
struct Opened
{
    FFmpeg::CodecContextPtr context;
    // Set when the encoder takes device frames: each converted frame is uploaded into one of
    // these first.
    FFmpeg::BufferPtr hwFrames;
    // The planes the encoder (or the upload) takes, which captured frames are converted to.
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

// libx264 with the fixed settings, its SPS and PPS numbered `parameterSetId` (0 to 31) instead of
// 0: for pictures whose parameter sets must sit beside another stream's in one file (a trimmed
// copy's re-encoded start). The libav error lines go into `reason` as with open().
int openSoftware(int width, int height, int parameterSetId, Opened &opened, std::string &reason);

// Runs the family's opener. The libav error lines logged meanwhile on this thread (often the
// only place the real cause appears, like "Cannot load libcuda.so.1") go into `reason` instead
// of standard error.
int open(const Family &family, int width, int height, Opened &opened, std::string &reason);

} // namespace VideoEncoderBackends
