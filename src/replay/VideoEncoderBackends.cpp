#include "replay/VideoEncoderBackends.h"

#include "core/ClipSettings.h"

extern "C" {
#include <libavutil/hwcontext.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
}

#include <array>
#include <cstdarg>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace VideoEncoderBackends {

namespace {

// The fixed settings every family is held to (and averageBitRate, in the header).
// At most 8,000,000 bytes in any one second: a peak rate of that many bytes per second with a
// one-second buffer.
constexpr int64_t peakBitRate = 8'000'000 * 8;
constexpr int peakBufferBits = 8'000'000 * 8;

// libx264 threads. zerolatency makes them slice threads, which add no delay. Measured with
// bench/encoder on 1080p60 (2 cores): 1, 2 and 3 threads cost 9.1, 9.3 and 10.0 ms of CPU per
// frame. Two cost about what one does and let a frame use both cores, so a busy spell on the
// capture or audio threads is caught up sooner; more only add synchronisation. (A fixed count
// also keeps a many-core machine from spreading one stream over every core.)
constexpr int x264Threads = 2;

using FFmpeg::BufferPtr;
using FFmpeg::CodecContextPtr;

std::string errorText(int status)
{
    return FFmpeg::errorText(status).toStdString();
}

using Options = std::vector<std::pair<const char *, const char *>>;

void applyCommonSettings(AVCodecContext *context, int width, int height, AVPixelFormat format)
{
    context->width = width;
    context->height = height;
    context->pix_fmt = format;
    // Capture times are carried to the encoder in nanoseconds, so its rate control sees the
    // real spacing of the frames (a still screen delivers fewer).
    context->time_base = {1, 1'000'000'000};
    context->framerate = {ClipSettings::fps, 1};
    context->bit_rate = averageBitRate;
    context->rc_max_rate = peakBitRate;
    context->rc_buffer_size = peakBufferBits;
    context->gop_size = 2 * ClipSettings::fps;
    context->max_b_frames = 0;
    context->profile = FF_PROFILE_H264_HIGH;
    // SPS and PPS go to the extradata (the MP4 track's avcC), not in front of every key frame.
    context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    // libyuv converts with the BT.601 limited-range matrix; the pixels themselves are sRGB.
    context->color_range = AVCOL_RANGE_MPEG;
    context->colorspace = AVCOL_SPC_SMPTE170M;
    context->color_primaries = AVCOL_PRI_BT709;
    context->color_trc = AVCOL_TRC_IEC61966_2_1;
}

int openCodec(const char *name, int width, int height, AVPixelFormat format, const Options &options,
              Opened &opened, std::string &reason, BufferPtr hwFrames = {})
{
    const AVCodec *codec = avcodec_find_encoder_by_name(name);
    if (!codec) {
        reason = "not in this libavcodec";
        return AVERROR_ENCODER_NOT_FOUND;
    }
    CodecContextPtr context(avcodec_alloc_context3(codec));
    if (!context) {
        reason = errorText(AVERROR(ENOMEM));
        return AVERROR(ENOMEM);
    }
    applyCommonSettings(context.get(), width, height, format);
    if (hwFrames) {
        context->hw_frames_ctx = av_buffer_ref(hwFrames.get());
        if (!context->hw_frames_ctx) {
            reason = errorText(AVERROR(ENOMEM));
            return AVERROR(ENOMEM);
        }
    }
    for (const auto &[key, value] : options) {
        if (const int status = av_opt_set(context.get(), key, value, AV_OPT_SEARCH_CHILDREN)) {
            reason = std::string("option ") + key + ": " + errorText(status);
            return status;
        }
    }
    if (const int status = avcodec_open2(context.get(), codec, nullptr); status < 0) {
        reason = errorText(status);
        return status;
    }
    // Device frames are filled by uploading NV12, which is also what the hardware encoders
    // take directly.
    opened.inputFormat = hwFrames ? AV_PIX_FMT_NV12 : format;
    opened.context = std::move(context);
    opened.hwFrames = std::move(hwFrames);
    return 0;
}

// The first DRM render node this process may open, or empty.
std::string renderNode()
{
    for (int minor = 128; minor < 192; ++minor) {
        const std::string path = "/dev/dri/renderD" + std::to_string(minor);
        const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        if (fd >= 0) {
            ::close(fd);
            return path;
        }
    }
    return {};
}

int openVaapi(int width, int height, Opened &opened, std::string &reason)
{
    const std::string node = renderNode();
    if (node.empty()) {
        reason = "no render node";
        return AVERROR(ENODEV);
    }
    AVBufferRef *rawDevice = nullptr;
    if (const int status =
            av_hwdevice_ctx_create(&rawDevice, AV_HWDEVICE_TYPE_VAAPI, node.c_str(), nullptr, 0)) {
        reason = node + ": " + errorText(status);
        return status;
    }
    const BufferPtr device(rawDevice);
    BufferPtr frames(av_hwframe_ctx_alloc(device.get()));
    if (!frames) {
        reason = errorText(AVERROR(ENOMEM));
        return AVERROR(ENOMEM);
    }
    auto *framesContext = reinterpret_cast<AVHWFramesContext *>(frames->data);
    framesContext->format = AV_PIX_FMT_VAAPI;
    framesContext->sw_format = AV_PIX_FMT_NV12;
    framesContext->width = width;
    framesContext->height = height;
    framesContext->initial_pool_size = 8;
    if (const int status = av_hwframe_ctx_init(frames.get())) {
        reason = "surfaces: " + errorText(status);
        return status;
    }
    // One frame in flight keeps the delay at a frame.
    return openCodec("h264_vaapi", width, height, AV_PIX_FMT_VAAPI,
                     {{"profile", "high"}, {"async_depth", "1"}}, opened, reason,
                     std::move(frames));
}

int openNvenc(int width, int height, Opened &opened, std::string &reason)
{
    return openCodec("h264_nvenc", width, height, AV_PIX_FMT_NV12,
                     {{"profile", "high"},
                      {"preset", "p4"},
                      {"tune", "ll"},
                      {"rc", "vbr"},
                      {"zerolatency", "1"},
                      {"delay", "0"},
                      {"forced-idr", "1"}},
                     opened, reason);
}

int openQsv(int width, int height, Opened &opened, std::string &reason)
{
    return openCodec("h264_qsv", width, height, AV_PIX_FMT_NV12,
                     {{"profile", "high"}, {"async_depth", "1"}, {"forced_idr", "1"}}, opened,
                     reason);
}

int openX264WithId(int width, int height, int parameterSetId, Opened &opened, std::string &reason)
{
    // ultrafast because 1080p60 must hold beside the game on a small machine: it took 8.7 ms of
    // CPU per frame against superfast's 13.3 ms (bench/encoder), and at 18 Mbit/s the quality
    // it gives up is hard to see. Alone it leaves out every High-profile tool and x264 then
    // writes a Constrained Baseline SPS; the 8x8 transform makes the stream High profile.
    // A forced key frame (the two-second rule) must be an IDR so the buffer can cut there.
    const std::string threads = std::to_string(x264Threads);
    const std::string ids = "sps-id=" + std::to_string(parameterSetId);
    Options options {{"preset", "ultrafast"}, {"tune", "zerolatency"},
                     {"profile", "high"},     {"8x8dct", "1"},
                     {"forced-idr", "1"},     {"threads", threads.c_str()}};
    if (parameterSetId != 0)
        options.push_back({"x264-params", ids.c_str()});
    return openCodec("libx264", width, height, AV_PIX_FMT_YUV420P, options, opened, reason);
}

int openX264(int width, int height, Opened &opened, std::string &reason)
{
    return openX264WithId(width, height, 0, opened, reason);
}

// Set while this thread opens an encoder: libav's error lines are collected here.
thread_local std::string *collectedErrors = nullptr;

// Every other line, and every line of other threads, goes where libav sends it by default.
void logCallback(void *object, int level, const char *format, va_list args)
{
    if (!collectedErrors || level > AV_LOG_ERROR) {
        av_log_default_callback(object, level, format, args);
        return;
    }
    char line[512];
    int printPrefix = 0;
    va_list copy;
    va_copy(copy, args);
    av_log_format_line2(nullptr, level, format, copy, line, sizeof line, &printPrefix);
    va_end(copy);
    std::string text = line;
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    if (text.empty())
        return;
    if (!collectedErrors->empty())
        *collectedErrors += "; ";
    *collectedErrors += text;
}

constexpr std::array<Family, 4> allFamilies {{
    {"h264_vaapi", openVaapi},
    {"h264_nvenc", openNvenc},
    {"h264_qsv", openQsv},
    {"libx264", openX264},
}};

} // namespace

std::span<const Family> families()
{
    return allFamilies;
}

namespace {

// Runs `opener` with libav's error lines collected into `reason`.
template<typename Opener> int collectingErrors(std::string &reason, Opener opener)
{
    static std::once_flag installed;
    std::call_once(installed, [] { av_log_set_callback(logCallback); });
    std::string errors;
    collectedErrors = &errors;
    const int status = opener();
    collectedErrors = nullptr;
    if (status != 0 && !errors.empty())
        reason = errors + " (" + reason + ")";
    return status;
}

} // namespace

int open(const Family &family, int width, int height, Opened &opened, std::string &reason)
{
    return collectingErrors(reason, [&] { return family.open(width, height, opened, reason); });
}

int openSoftware(int width, int height, int parameterSetId, Opened &opened, std::string &reason)
{
    if (parameterSetId < 0 || parameterSetId > 31) {
        reason = "no such parameter set id";
        return AVERROR(EINVAL);
    }
    return collectingErrors(
        reason, [&] { return openX264WithId(width, height, parameterSetId, opened, reason); });
}

} // namespace VideoEncoderBackends
