#include "media/PosterFrame.h"

#include "media/FFmpegHandles.h"

#include <QFile>

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <libyuv/convert_argb.h>
#include <libyuv/convert_from_argb.h>
#include <libyuv/scale.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace PosterFrame {

namespace {

// How far into a file the first picture is looked for: a clip opens on a key frame, so a file
// that has none by then is not worth decoding further.
constexpr int maxPacketsRead = 400;
// JPEG quality as a quantiser scale (2 is best, 31 worst): small files that still look sharp at
// the size a list shows them.
constexpr int jpegQuality = 4;

int even(double value)
{
    return std::max(2, int(std::lround(value / 2)) * 2);
}

// Planes of a 4:2:0 picture that this code owns.
struct Planes
{
    int width = 0;
    int height = 0;
    std::vector<uint8_t> bytes;

    Planes(int w, int h)
        : width(w)
        , height(h)
        , bytes(size_t(w) * h + 2 * size_t(chromaStride()) * chromaHeight())
    {
    }
    int chromaStride() const { return (width + 1) / 2; }
    int chromaHeight() const { return (height + 1) / 2; }
    uint8_t *y() { return bytes.data(); }
    uint8_t *u() { return y() + size_t(width) * height; }
    uint8_t *v() { return u() + size_t(chromaStride()) * chromaHeight(); }
};

// The first picture of the video stream `index`: from the first key frame on, packets are
// decoded until one comes out (one, for a stream without reordering).
FFmpeg::FramePtr firstPicture(AVFormatContext &input, int index, QString &problem)
{
    const AVStream *stream = input.streams[index];
    const AVCodec *codec = avcodec_find_decoder(stream->codecpar->codec_id);
    if (!codec) {
        problem = QStringLiteral("no decoder for its video");
        return nullptr;
    }
    FFmpeg::CodecContextPtr decoder(avcodec_alloc_context3(codec));
    if (!decoder || avcodec_parameters_to_context(decoder.get(), stream->codecpar) < 0) {
        problem = QStringLiteral("out of memory");
        return nullptr;
    }
    // One picture: frame threads would only hold it back until they all had work.
    decoder->thread_count = 1;
    if (const int status = avcodec_open2(decoder.get(), codec, nullptr); status < 0) {
        problem = QStringLiteral("cannot decode its video: %1").arg(FFmpeg::errorText(status));
        return nullptr;
    }
    FFmpeg::PacketPtr packet = FFmpeg::makePacket();
    FFmpeg::FramePtr picture(av_frame_alloc());
    if (!picture)
        throw std::bad_alloc();
    bool keySeen = false;
    for (int read = 0; read < maxPacketsRead; ++read) {
        const int status = av_read_frame(&input, packet.get());
        if (status < 0)
            break;
        const bool ours = packet->stream_index == index;
        keySeen = keySeen || (ours && (packet->flags & AV_PKT_FLAG_KEY));
        const bool sent = ours && keySeen && avcodec_send_packet(decoder.get(), packet.get()) >= 0;
        av_packet_unref(packet.get());
        if (sent && avcodec_receive_frame(decoder.get(), picture.get()) == 0)
            return picture;
    }
    // The end of the file, or of what is worth reading: what the decoder still holds.
    if (keySeen && avcodec_send_packet(decoder.get(), nullptr) >= 0 &&
        avcodec_receive_frame(decoder.get(), picture.get()) == 0)
        return picture;
    problem = keySeen ? QStringLiteral("its first key frame does not decode")
                      : QStringLiteral("no key frame near its start");
    return nullptr;
}

// `picture` at the poster's size, in the full-range planes JPEG wants.
std::optional<Planes> posterPlanes(const AVFrame &picture, QString &problem)
{
    const auto format = AVPixelFormat(picture.format);
    if (format != AV_PIX_FMT_YUV420P && format != AV_PIX_FMT_YUVJ420P) {
        problem = QStringLiteral("its pictures are %1, not 8-bit 4:2:0")
                      .arg(QLatin1String(av_get_pix_fmt_name(format)));
        return std::nullopt;
    }
    if (picture.width < 2 || picture.height < 2) {
        problem = QStringLiteral("its pictures are too small");
        return std::nullopt;
    }
    const int targetWidth = std::min(width, picture.width) & ~1;
    Planes scaled(targetWidth, even(double(targetWidth) * picture.height / picture.width));
    libyuv::I420Scale(picture.data[0], picture.linesize[0], picture.data[1], picture.linesize[1],
                      picture.data[2], picture.linesize[2], picture.width, picture.height,
                      scaled.y(), scaled.width, scaled.u(), scaled.chromaStride(), scaled.v(),
                      scaled.chromaStride(), scaled.width, scaled.height, libyuv::kFilterBox);
    const bool fullRange = format == AV_PIX_FMT_YUVJ420P || picture.color_range == AVCOL_RANGE_JPEG;
    if (fullRange)
        return scaled;
    // Video is limited range; a JPEG is full range. Through RGB, at the poster's size only.
    const libyuv::YuvConstants *matrix = picture.colorspace == AVCOL_SPC_BT709
        ? &libyuv::kYuvH709Constants
        : &libyuv::kYuvI601Constants;
    std::vector<uint8_t> argb(size_t(scaled.width) * scaled.height * 4);
    libyuv::I420ToARGBMatrix(scaled.y(), scaled.width, scaled.u(), scaled.chromaStride(),
                             scaled.v(), scaled.chromaStride(), argb.data(), scaled.width * 4,
                             matrix, scaled.width, scaled.height);
    Planes full(scaled.width, scaled.height);
    libyuv::ARGBToJ420(argb.data(), scaled.width * 4, full.y(), full.width, full.u(),
                       full.chromaStride(), full.v(), full.chromaStride(), full.width, full.height);
    return full;
}

QByteArray jpegOf(Planes &planes, QString &problem)
{
    const AVCodec *codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    FFmpeg::CodecContextPtr encoder(codec ? avcodec_alloc_context3(codec) : nullptr);
    if (!encoder) {
        problem = QStringLiteral("no JPEG encoder");
        return {};
    }
    encoder->width = planes.width;
    encoder->height = planes.height;
    encoder->pix_fmt = AV_PIX_FMT_YUVJ420P;
    encoder->color_range = AVCOL_RANGE_JPEG;
    encoder->time_base = {1, 25};
    encoder->flags |= AV_CODEC_FLAG_QSCALE;
    encoder->global_quality = FF_QP2LAMBDA * jpegQuality;
    encoder->thread_count = 1;
    if (const int status = avcodec_open2(encoder.get(), codec, nullptr); status < 0) {
        problem = QStringLiteral("cannot write a JPEG: %1").arg(FFmpeg::errorText(status));
        return {};
    }
    FFmpeg::FramePtr frame(av_frame_alloc());
    if (!frame)
        throw std::bad_alloc();
    frame->format = AV_PIX_FMT_YUVJ420P;
    frame->width = planes.width;
    frame->height = planes.height;
    frame->quality = encoder->global_quality;
    frame->pts = 0;
    frame->data[0] = planes.y();
    frame->data[1] = planes.u();
    frame->data[2] = planes.v();
    frame->linesize[0] = planes.width;
    frame->linesize[1] = planes.chromaStride();
    frame->linesize[2] = planes.chromaStride();
    FFmpeg::PacketPtr packet = FFmpeg::makePacket();
    if (avcodec_send_frame(encoder.get(), frame.get()) < 0 ||
        avcodec_send_frame(encoder.get(), nullptr) < 0 ||
        avcodec_receive_packet(encoder.get(), packet.get()) < 0) {
        problem = QStringLiteral("cannot write a JPEG");
        return {};
    }
    return QByteArray(reinterpret_cast<const char *>(packet->data), packet->size);
}

} // namespace

Read read(const QString &path)
{
    Read out;
    AVFormatContext *raw = nullptr;
    const QByteArray url = "file:" + QFile::encodeName(path);
    if (const int status = avformat_open_input(&raw, url.constData(), nullptr, nullptr);
        status < 0) {
        out.problem = QStringLiteral("cannot read it: %1").arg(FFmpeg::errorText(status));
        return out;
    }
    const FFmpeg::InputPtr input(raw);
    if (input->duration > 0)
        out.seconds = double(input->duration) / AV_TIME_BASE;

    int video = -1;
    for (unsigned i = 0; i < input->nb_streams; ++i) {
        AVStream *stream = input->streams[i];
        const bool picture = stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO &&
            !(stream->disposition & AV_DISPOSITION_ATTACHED_PIC);
        if (picture && video < 0)
            video = int(i);
        else
            stream->discard = AVDISCARD_ALL; // not even read
    }
    if (video < 0) {
        out.problem = QStringLiteral("it has no video");
        return out;
    }
    const AVStream *stream = input->streams[video];
    if (!out.seconds && stream->duration > 0)
        out.seconds = double(stream->duration) * av_q2d(stream->time_base);

    const FFmpeg::FramePtr picture = firstPicture(*input, video, out.problem);
    if (!picture)
        return out;
    std::optional<Planes> planes = posterPlanes(*picture, out.problem);
    if (!planes)
        return out;
    out.jpeg = jpegOf(*planes, out.problem);
    if (!out.jpeg.isEmpty()) {
        out.posterWidth = planes->width;
        out.posterHeight = planes->height;
    }
    return out;
}

} // namespace PosterFrame
