#include "replay/VideoEncoder.h"

#include "core/ClipSettings.h"
#include "core/Log.h"
#include "media/H264Bitstream.h"
#include "media/RecorderError.h"
#include "replay/FrameConverter.h"

#include <QString>
#include <QStringList>

extern "C" {
#include <libavutil/hwcontext.h>
#include <libavutil/imgutils.h>
}

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <utility>

namespace {

constexpr int32_t nanosecond = 1'000'000'000;
// Key frames come at least this often in capture time, however irregularly frames arrive.
constexpr MediaTime keyFrameInterval = MediaTime::make(2, 1);
// An encoder that swallows frames without ever returning them must not make this list grow
// without end.
constexpr size_t maxTimings = 256;

MediaTime oneFrame()
{
    return MediaTime::make(1, ClipSettings::fps);
}

[[noreturn]] void failToStart(int status, const QString &why)
{
    throw RecorderError::writerFailed(
        QStringLiteral("Could not start the video encoder (%1): %2.").arg(status).arg(why));
}

} // namespace

VideoEncoder::VideoEncoder(int64_t width, int64_t height, Output output)
    : VideoEncoder(width, height, std::move(output), std::nullopt)
{
}

VideoEncoder::VideoEncoder(int64_t width, int64_t height, Output output, int parameterSetId)
    : VideoEncoder(width, height, std::move(output), std::optional<int>(parameterSetId))
{
}

VideoEncoder::VideoEncoder(int64_t width, int64_t height, Output output,
                           std::optional<int> parameterSetId)
    : m_output(std::move(output))
{
    open(width, height, parameterSetId);
    m_packet.reset(av_packet_alloc());
    if (!m_packet)
        failToStart(AVERROR(ENOMEM), FFmpeg::errorText(AVERROR(ENOMEM)));
}

VideoEncoder::~VideoEncoder() = default;

void VideoEncoder::open(int64_t width, int64_t height, std::optional<int> parameterSetId)
{
    constexpr int64_t maxSide = std::numeric_limits<int32_t>::max();
    if (width < 1 || height < 1 || width > maxSide || height > maxSide ||
        av_image_check_size(unsigned(width), unsigned(height), 0, nullptr) < 0)
        failToStart(AVERROR(EINVAL),
                    QStringLiteral("no encoder takes %1x%2 pixels").arg(width).arg(height));
    m_width = int(width);
    m_height = int(height);

    const char *forcedName = std::getenv("VANTREL_ENCODER");
    const std::string forced = parameterSetId ? "libx264" : forcedName ? forcedName : "";
    QStringList passedOver;
    int status = AVERROR_ENCODER_NOT_FOUND;
    VideoEncoderBackends::Opened opened;
    if (parameterSetId) {
        std::string reason;
        status =
            VideoEncoderBackends::openSoftware(m_width, m_height, *parameterSetId, opened, reason);
        if (status != 0)
            failToStart(status, QStringLiteral("libx264: %1").arg(QString::fromStdString(reason)));
        m_name = "libx264";
    }
    for (const auto &family : VideoEncoderBackends::families()) {
        if (!m_name.empty())
            break;
        if (!forced.empty() && forced != family.name)
            continue;
        std::string reason;
        status = VideoEncoderBackends::open(family, m_width, m_height, opened, reason);
        if (status == 0) {
            m_name = family.name;
            break;
        }
        passedOver << QStringLiteral("%1: %2").arg(family.name, QString::fromStdString(reason));
    }
    if (m_name.empty()) {
        if (!forced.empty() && passedOver.isEmpty())
            passedOver << QStringLiteral("%1: no such encoder").arg(QString::fromStdString(forced));
        failToStart(status, passedOver.join(QStringLiteral("; ")));
    }
    QString why = parameterSetId ? QStringLiteral("parameter sets %1").arg(*parameterSetId)
        : forced.empty()         ? passedOver.join(QStringLiteral("; "))
                                 : QStringLiteral("VANTREL_ENCODER");
    m_choice = QStringLiteral("%1 at %2x%3%4")
                   .arg(QString::fromStdString(m_name))
                   .arg(m_width)
                   .arg(m_height)
                   .arg(why.isEmpty() ? QString() : QStringLiteral(" (") + why + ')');

    m_context = std::move(opened.context);
    m_hwFrames = std::move(opened.hwFrames);
    m_inputFormat = opened.inputFormat;
    const std::span<const uint8_t> extradata(m_context->extradata,
                                             size_t(std::max(0, m_context->extradata_size)));
    // An avcC record as extradata means the packets are length-prefixed already; otherwise they
    // are Annex B, and without usable extradata the SPS/PPS are taken from the first key frame
    // that carries them. (Sniffing each packet instead would misread a length-prefixed unit of
    // 256 to 511 bytes as a start code.)
    m_annexB = extradata.empty() || extradata[0] != 1;
    if (m_annexB)
        adoptFormat(H264Bitstream::annexBUnits(extradata));
    else
        m_format = std::make_shared<const VideoFormat>(
            VideoFormat {m_width, m_height, {extradata.begin(), extradata.end()}});
}

void VideoEncoder::encode(VideoFrame &&frame)
{
    std::shared_ptr<const void> pixels = std::move(frame.owner);
    // An idle frame has no picture to encode. A repeated picture is encoded like a new one: it
    // costs the encoder a frame of skipped blocks (or the key frame that is due), and keeps the
    // video going while the screen is still.
    if (!frame.pixels || frame.status == VideoFrame::Status::idle)
        return;
    const int64_t ordinal = ++m_handedOver;
    if (!FrameConverter::fits(frame, m_width, m_height) || !frame.pts.isValid()) {
        reportSubmission(AVERROR(EINVAL), ordinal);
        return;
    }
    if (frame.layout == VideoFrame::Layout::i420 && m_inputFormat == AV_PIX_FMT_YUV420P &&
        !m_hwFrames) {
        // Already the encoder's planes: handed over as they are, held until the encoder has
        // taken them in.
        AVFrame *picture = borrowedPicture(frame, std::move(pixels));
        if (!picture) {
            reportSubmission(AVERROR(ENOMEM), ordinal);
            return;
        }
        submit(*picture, frame.pts, frame.duration, ordinal);
        av_frame_unref(picture);
        return;
    }
    AVFrame *picture = writablePicture();
    if (!picture || !FrameConverter::convert(frame, *picture)) {
        reportSubmission(picture ? AVERROR(EINVAL) : AVERROR(ENOMEM), ordinal);
        return;
    }
    pixels.reset();
    submit(*picture, frame.pts, frame.duration, ordinal);
}

AVFrame *VideoEncoder::borrowedPicture(const VideoFrame &frame, std::shared_ptr<const void> owner)
{
    if (!m_borrowed)
        m_borrowed.reset(av_frame_alloc());
    AVFrame *picture = m_borrowed.get();
    if (!picture)
        return nullptr;
    // The buffer's release drops our hold on the pixels, whenever the encoder lets go of them.
    auto *held = new std::shared_ptr<const void>(std::move(owner));
    const auto release = [](void *opaque, uint8_t *) {
        delete static_cast<std::shared_ptr<const void> *>(opaque);
    };
    const uint8_t *end =
        std::max({frame.pixels + size_t(frame.stride) * size_t(frame.height),
                  frame.u + size_t(frame.chromaStride) * size_t((frame.height + 1) / 2),
                  frame.v + size_t(frame.chromaStride) * size_t((frame.height + 1) / 2)});
    picture->buf[0] =
        av_buffer_create(const_cast<uint8_t *>(frame.pixels), size_t(end - frame.pixels), release,
                         held, AV_BUFFER_FLAG_READONLY);
    if (!picture->buf[0]) {
        delete held;
        return nullptr;
    }
    picture->format = AV_PIX_FMT_YUV420P;
    picture->width = frame.width;
    picture->height = frame.height;
    picture->data[0] = const_cast<uint8_t *>(frame.pixels);
    picture->data[1] = const_cast<uint8_t *>(frame.u);
    picture->data[2] = const_cast<uint8_t *>(frame.v);
    picture->linesize[0] = frame.stride;
    picture->linesize[1] = frame.chromaStride;
    picture->linesize[2] = frame.chromaStride;
    return picture;
}

void VideoEncoder::encode(const AVFrame &picture, MediaTime pts, MediaTime duration)
{
    const int64_t ordinal = ++m_handedOver;
    if (picture.width != m_width || picture.height != m_height || picture.format != m_inputFormat ||
        !pts.isValid()) {
        reportSubmission(AVERROR(EINVAL), ordinal);
        return;
    }
    // The encoder writes its own fields (time, picture type) on what it is given.
    FramePtr reference(av_frame_clone(&picture));
    if (!reference) {
        reportSubmission(AVERROR(ENOMEM), ordinal);
        return;
    }
    submit(*reference, pts, duration, ordinal);
}

AVFrame *VideoEncoder::writablePicture()
{
    if (m_picture && av_frame_is_writable(m_picture.get()))
        return m_picture.get();
    // Still referenced by a hardware encoder: that one keeps its copy, this one is new.
    m_picture.reset(av_frame_alloc());
    if (!m_picture)
        return nullptr;
    m_picture->format = m_inputFormat;
    m_picture->width = m_width;
    m_picture->height = m_height;
    if (av_frame_get_buffer(m_picture.get(), 0) < 0) {
        m_picture.reset();
        return nullptr;
    }
    return m_picture.get();
}

void VideoEncoder::reportSubmission(int status, int64_t ordinal)
{
    // A broken encoder fails every frame; a line for each at 60 a second would bury the log.
    if (status != 0 && ordinal < 6)
        Log::system(QStringLiteral("encode status %1").arg(status));
}

void VideoEncoder::submit(AVFrame &picture, MediaTime pts, MediaTime duration, int64_t ordinal)
{
    if (!duration.isValid() || duration.isZero())
        duration = oneFrame();
    // Nanoseconds, strictly increasing: the encoder needs distinct, ordered times, and finds a
    // frame's exact capture times again by this one.
    const MediaTime inNanoseconds = pts.converted(nanosecond);
    int64_t encoderPts = inNanoseconds.isValid() ? inNanoseconds.value : m_lastEncoderPts + 1;
    if (m_anySubmitted && encoderPts <= m_lastEncoderPts)
        encoderPts = m_lastEncoderPts + 1;

    // Frames may come further apart than 1/60 s (a still screen sends fewer), so the frame
    // count alone would let key frames drift further apart than two seconds.
    const bool forceKey = !m_lastKeyPts.isValid() || pts - m_lastKeyPts >= keyFrameInterval ||
        std::exchange(m_keyFrameRequested, false);

    AVFrame *toSend = &picture;
    if (m_hwFrames) {
        if (!m_uploaded)
            m_uploaded.reset(av_frame_alloc());
        int status = m_uploaded ? av_hwframe_get_buffer(m_hwFrames.get(), m_uploaded.get(), 0)
                                : AVERROR(ENOMEM);
        if (status == 0)
            status = av_hwframe_transfer_data(m_uploaded.get(), &picture, 0);
        if (status < 0) {
            reportSubmission(status, ordinal);
            return;
        }
        toSend = m_uploaded.get();
    }
    toSend->pts = encoderPts;
    toSend->pict_type = forceKey ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    const int status = avcodec_send_frame(m_context.get(), toSend);
    if (m_hwFrames)
        av_frame_unref(m_uploaded.get());
    if (status < 0) {
        reportSubmission(status, ordinal);
        return;
    }
    m_lastEncoderPts = encoderPts;
    m_anySubmitted = true;
    if (forceKey)
        m_lastKeyPts = pts;
    m_timings.push_back({encoderPts, pts, duration});
    if (m_timings.size() > maxTimings)
        m_timings.pop_front();
    receivePackets();
}

void VideoEncoder::finish()
{
    if (avcodec_send_frame(m_context.get(), nullptr) == 0)
        receivePackets();
}

void VideoEncoder::receivePackets()
{
    for (;;) {
        // An error here (as opposed to "nothing yet") loses the frame, silently: the buffer
        // simply lacks it, as with any frame the encoder drops.
        if (avcodec_receive_packet(m_context.get(), m_packet.get()) < 0)
            return;
        deliver(*m_packet);
        av_packet_unref(m_packet.get());
    }
}

bool VideoEncoder::takeTiming(int64_t encoderPts, Timing &timing)
{
    // Output comes in submission order (nothing is reordered), so anything older than this
    // packet was dropped inside the encoder.
    while (!m_timings.empty() && m_timings.front().encoderPts < encoderPts)
        m_timings.pop_front();
    if (!m_timings.empty() && m_timings.front().encoderPts == encoderPts) {
        timing = m_timings.front();
        m_timings.pop_front();
        return true;
    }
    if (encoderPts == AV_NOPTS_VALUE)
        return false;
    timing = {encoderPts, MediaTime::make(encoderPts, nanosecond), oneFrame()};
    return true;
}

void VideoEncoder::deliver(const AVPacket &packet)
{
    const std::span<const uint8_t> data(packet.data, size_t(std::max(0, packet.size)));
    Timing timing;
    if (data.empty() || !takeTiming(packet.pts, timing))
        return;
    const bool isKey = packet.flags & AV_PKT_FLAG_KEY;
    Bytes payload;
    if (m_annexB) {
        const auto units = H264Bitstream::annexBUnits(data);
        if (isKey && !m_format)
            adoptFormat(units);
        payload = H264Bitstream::lengthPrefixed(units, &m_payloads);
    } else {
        payload = Bytes::copy(data, &m_payloads);
    }
    if (payload.empty())
        return;
    // The encoder places key frames of its own too (every 120 frames); the two-second rule
    // counts from whichever came last.
    if (isKey && (!m_lastKeyPts.isValid() || m_lastKeyPts < timing.pts))
        m_lastKeyPts = timing.pts;
    m_output({std::move(payload), timing.pts, timing.duration, isKey}, isKey ? m_format : nullptr);
}

void VideoEncoder::adoptFormat(const std::vector<std::span<const uint8_t>> &units)
{
    std::vector<uint8_t> avcC = H264Bitstream::avcC(units);
    if (!avcC.empty())
        m_format =
            std::make_shared<const VideoFormat>(VideoFormat {m_width, m_height, std::move(avcC)});
}
