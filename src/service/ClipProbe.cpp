#include "service/ClipProbe.h"

#include "service/FileStore.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/mem.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cstdio>
#include <memory>

namespace {

struct InputCloser
{
    void operator()(AVFormatContext *context) const { avformat_close_input(&context); }
};
struct CodecFreer
{
    void operator()(AVCodecContext *context) const { avcodec_free_context(&context); }
};
struct FrameFreer
{
    void operator()(AVFrame *frame) const { av_frame_free(&frame); }
};
struct PacketFreer
{
    void operator()(AVPacket *packet) const { av_packet_free(&packet); }
};
struct ScalerFreer
{
    void operator()(SwsContext *context) const { sws_freeContext(context); }
};
using Input = std::unique_ptr<AVFormatContext, InputCloser>;
using Codec = std::unique_ptr<AVCodecContext, CodecFreer>;
using Frame = std::unique_ptr<AVFrame, FrameFreer>;
using Packet = std::unique_ptr<AVPacket, PacketFreer>;
using Scaler = std::unique_ptr<SwsContext, ScalerFreer>;

bool startsWithFtyp(const std::string &path)
{
    std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen(path.c_str(), "rb"), &std::fclose);
    unsigned char head[8] {};
    if (!file || std::fread(head, 1, sizeof head, file.get()) != sizeof head)
        return false;
    return head[4] == 'f' && head[5] == 't' && head[6] == 'y' && head[7] == 'p';
}

// A few bytes of MP4 can declare millions of samples, and the demuxer allocates its tables for
// what is declared before it reads them: a 2 KiB fragment declaring 83 million samples took
// close to 3 GB. No block a real clip needs comes near this (the sample index of ten hours at 60
// frames a second is some 50 MiB), so a larger one fails and the file is reported as damaged.
// FIXME: the cap is per block; a file of many tracks can still ask for it once per track.
constexpr size_t largestLibraryBlock = size_t(64) << 20;

// Opens the file with the MP4 demuxer only, so that no other format's parser ever sees it.
Input openMp4(const std::string &path)
{
    // The service links FFmpeg for nothing but these checks, so the cap is set process-wide.
    static const bool capped = (av_max_alloc(largestLibraryBlock), true);
    (void)capped;
    AVFormatContext *raw = nullptr;
    AVDictionary *options = nullptr;
    av_dict_set(&options, "probesize", "5000000", 0);
    const AVInputFormat *mp4 = av_find_input_format("mp4");
    const int result = avformat_open_input(&raw, path.c_str(), mp4, &options);
    av_dict_free(&options);
    if (result < 0)
        return nullptr;
    // An MP4 describes its streams in its header. What it leaves out is not learnt by decoding
    // frames (avformat_find_stream_info would): a file that does not say is refused.
    return Input(raw);
}

// The video stream's index when it is one the service takes; otherwise -1 with the reason.
int checkedVideo(AVFormatContext *input, const VideoBounds &bounds, std::string &problem)
{
    const int index = av_find_best_stream(input, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (index < 0) {
        problem = "The MP4 file has no video.";
        return -1;
    }
    const AVCodecParameters *video = input->streams[index]->codecpar;
    // Vantrel records H.264; no other decoder is ever given an upload.
    if (video->codec_id != AV_CODEC_ID_H264) {
        problem = std::string("Only H.264 video is taken; this clip's video is ") +
            avcodec_get_name(video->codec_id) + ".";
        return -1;
    }
    if (video->width <= 0 || video->height <= 0) {
        problem = "The MP4 file does not say how large its picture is.";
        return -1;
    }
    const int longer = std::max(video->width, video->height);
    const int shorter = std::min(video->width, video->height);
    if (longer > bounds.maxWidth || shorter > bounds.maxHeight) {
        problem = "The picture is " + std::to_string(video->width) + " × " +
            std::to_string(video->height) + " pixels; the largest taken is " +
            std::to_string(bounds.maxWidth) + " × " + std::to_string(bounds.maxHeight) + ".";
        return -1;
    }
    return index;
}

} // namespace

namespace ClipProbe {

void silenceLibraryLog()
{
    av_log_set_level(AV_LOG_QUIET);
}

ClipProbeResult probe(const std::string &path, const VideoBounds &bounds)
{
    ClipProbeResult result;
    if (!startsWithFtyp(path)) {
        result.problem = "The file is not an MP4 video.";
        return result;
    }
    Input input = openMp4(path);
    if (!input) {
        result.problem = "The MP4 file is damaged or incomplete.";
        return result;
    }
    const int index = checkedVideo(input.get(), bounds, result.problem);
    if (index < 0)
        return result;
    const AVCodecParameters *video = input->streams[index]->codecpar;
    result.isMp4 = true;
    result.width = video->width;
    result.height = video->height;
    if (input->duration > 0)
        result.durationMs = input->duration / (AV_TIME_BASE / 1000);
    return result;
}

bool writePoster(const std::string &path, PendingFile &poster, const VideoBounds &bounds)
{
    if (!startsWithFtyp(path))
        return false;
    Input input = openMp4(path);
    if (!input)
        return false;
    std::string problem;
    const int index = checkedVideo(input.get(), bounds, problem);
    const AVCodec *decoder = avcodec_find_decoder(AV_CODEC_ID_H264);
    if (index < 0 || !decoder)
        return false;
    Codec decoding(avcodec_alloc_context3(decoder));
    if (!decoding ||
        avcodec_parameters_to_context(decoding.get(), input->streams[index]->codecpar) < 0)
        return false;
    decoding->thread_count = 1;
    // The parameter sets inside the stream may claim another size than the file's header.
    decoding->max_pixels = int64_t(bounds.maxWidth) * bounds.maxHeight;
    // The first picture is all a poster needs: no waiting for later frames to reorder.
    decoding->flags |= AV_CODEC_FLAG_LOW_DELAY;
    if (avcodec_open2(decoding.get(), decoder, nullptr) < 0)
        return false;

    Frame frame(av_frame_alloc());
    Packet packet(av_packet_alloc());
    bool decoded = false;
    // The first key frame decodes at once in a well-formed clip; a few hundred packets is
    // plenty of patience for a strange one.
    for (int packets = 0;
         !decoded && packets < 500 && av_read_frame(input.get(), packet.get()) >= 0; ++packets) {
        if (packet->stream_index == index && avcodec_send_packet(decoding.get(), packet.get()) >= 0)
            decoded = avcodec_receive_frame(decoding.get(), frame.get()) >= 0;
        av_packet_unref(packet.get());
    }
    if (!decoded) {
        avcodec_send_packet(decoding.get(), nullptr);
        decoded = avcodec_receive_frame(decoding.get(), frame.get()) >= 0;
    }
    if (!decoded || frame->width <= 0 || frame->height <= 0)
        return false;

    int width = frame->width;
    int height = frame->height;
    if (width > 1280) {
        height = static_cast<int>(static_cast<int64_t>(height) * 1280 / width);
        width = 1280;
    }
    width &= ~1;
    height = std::max(2, height & ~1);

    const AVCodec *jpeg = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    Codec encoding(jpeg ? avcodec_alloc_context3(jpeg) : nullptr);
    if (!encoding)
        return false;
    encoding->width = width;
    encoding->height = height;
    encoding->pix_fmt = AV_PIX_FMT_YUVJ420P;
    encoding->time_base = {1, 25};
    encoding->flags |= AV_CODEC_FLAG_QSCALE;
    encoding->global_quality = FF_QP2LAMBDA * 3;
    if (avcodec_open2(encoding.get(), jpeg, nullptr) < 0)
        return false;

    Frame scaled(av_frame_alloc());
    scaled->format = AV_PIX_FMT_YUVJ420P;
    scaled->width = width;
    scaled->height = height;
    if (av_frame_get_buffer(scaled.get(), 0) < 0)
        return false;
    Scaler scaler(sws_getContext(frame->width, frame->height,
                                 static_cast<AVPixelFormat>(frame->format), width, height,
                                 AV_PIX_FMT_YUVJ420P, SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (!scaler)
        return false;
    sws_scale(scaler.get(), frame->data, frame->linesize, 0, frame->height, scaled->data,
              scaled->linesize);
    scaled->pts = 0;

    if (avcodec_send_frame(encoding.get(), scaled.get()) < 0 ||
        avcodec_receive_packet(encoding.get(), packet.get()) < 0)
        return false;
    poster.write(reinterpret_cast<const char *>(packet->data), static_cast<size_t>(packet->size));
    av_packet_unref(packet.get());
    poster.finish();
    return true;
}

} // namespace ClipProbe
