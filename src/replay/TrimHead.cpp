#include "replay/TrimHead.h"

#include "media/FFmpegHandles.h"
#include "media/RecorderError.h"
#include "replay/TrimSource.h"
#include "replay/VideoEncoder.h"

#include <memory>

namespace TrimHead {

namespace {

// Frame threads: a frame decodes while the encoder works on the one before. (A thread of its own
// for the decoding, a few pictures ahead of the encoder, was measured no faster on two cores:
// both already keep them busy.)
constexpr int decoderThreads = 2;

[[noreturn]] void fail(const QString &what)
{
    throw RecorderError::writerFailed(
        QStringLiteral("Could not make the first frames of the cut: %1.").arg(what));
}

MediaTime timeOf(int64_t ticks, AVRational base)
{
    return MediaTime::make(ticks * base.num, base.den);
}

} // namespace

Made make(const TrimSource &source, size_t key, size_t first, size_t end, int parameterSetId)
{
    // The encoder's statistics at every close would otherwise go to standard error, the
    // program's system log.
    if (av_log_get_level() > AV_LOG_WARNING)
        av_log_set_level(AV_LOG_WARNING);
    const TrimSource::Track &video = source.video();
    const AVCodec *codec = avcodec_find_decoder(AV_CODEC_ID_H264);
    FFmpeg::CodecContextPtr decoder(codec ? avcodec_alloc_context3(codec) : nullptr);
    if (!decoder)
        fail(QStringLiteral("no H.264 decoder"));
    if (avcodec_parameters_to_context(decoder.get(), &video.parameters(source)) < 0)
        throw std::bad_alloc();
    decoder->thread_count = decoderThreads;
    decoder->thread_type = FF_THREAD_FRAME;
    if (const int status = avcodec_open2(decoder.get(), codec, nullptr); status < 0)
        fail(FFmpeg::errorText(status));

    Made made;
    std::unique_ptr<VideoEncoder> encoder;
    FFmpeg::FramePtr picture(av_frame_alloc());
    if (!picture)
        throw std::bad_alloc();
    // Decoded pictures come out in order; each is known by its sample's index, carried as its
    // time.
    const auto takePictures = [&] {
        while (avcodec_receive_frame(decoder.get(), picture.get()) == 0) {
            const int64_t index = picture->best_effort_timestamp;
            if (index >= int64_t(first) && index < int64_t(end)) {
                if (picture->format != AV_PIX_FMT_YUV420P)
                    fail(QStringLiteral("its pictures are not 8-bit 4:2:0"));
                if (!encoder)
                    encoder = std::make_unique<VideoEncoder>(
                        picture->width, picture->height,
                        [&made](EncodedFrame frame, VideoFormatPtr format) {
                            if (format && !made.format)
                                made.format = std::move(format);
                            made.frames.push_back(std::move(frame));
                        },
                        parameterSetId);
                const TrimSource::Sample &sample = video.samples[size_t(index)];
                encoder->encode(*picture, timeOf(sample.pts, video.timeBase),
                                timeOf(sample.duration, video.timeBase));
            }
            av_frame_unref(picture.get());
        }
    };
    for (size_t i = key; i < end; ++i) {
        FFmpeg::PacketPtr packet = source.read(video, video.samples[i]);
        packet->pts = packet->dts = int64_t(i);
        if (const int status = avcodec_send_packet(decoder.get(), packet.get()); status < 0)
            fail(QStringLiteral("frame %1 does not decode (%2)")
                     .arg(i)
                     .arg(FFmpeg::errorText(status)));
        takePictures();
    }
    avcodec_send_packet(decoder.get(), nullptr);
    takePictures();
    if (encoder)
        encoder->finish();
    if (made.frames.size() != end - first || !made.format || !made.frames.front().isKey)
        fail(QStringLiteral("%1 of %2 frames came out of the encoder")
                 .arg(made.frames.size())
                 .arg(end - first));
    return made;
}

} // namespace TrimHead
