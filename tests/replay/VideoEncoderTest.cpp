#include "replay/VideoEncoder.h"
#include "media/RecorderError.h"
#include "replay/ReplayBuffer.h"

#include "replay/ReplayBufferSupport.h"
#include "support/TestEnvironment.h"

#include <libyuv/convert_from_argb.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/error.h>
}

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

using namespace std::chrono_literals;

namespace {

// BGRA pictures in which every pixel changes from one frame to the next, with a still pure-red
// square in the top-left corner to check colours by after decoding; or the same as I420, as the
// X11 capture delivers them.
class MovingPicture
{
public:
    static constexpr int redSquare = 32;

    MovingPicture(int width, int height)
        : m_width(width)
        , m_height(height)
    {
    }

    VideoFrame frame(int64_t index, MediaTime pts, MediaTime duration = MediaTime::make(1, 60))
    {
        auto pixels = std::make_shared<std::vector<uint8_t>>(size_t(m_width) * m_height * 4);
        uint8_t *p = pixels->data();
        for (int y = 0; y < m_height; ++y) {
            for (int x = 0; x < m_width; ++x, p += 4) {
                const bool red = x < redSquare && y < redSquare;
                p[0] = red ? 0 : uint8_t(x + 3 * index);
                p[1] = red ? 0 : uint8_t(y + 2 * index);
                p[2] = red ? 255 : uint8_t(x + y + 5 * index);
                p[3] = 255;
            }
        }
        VideoFrame out;
        out.pixels = pixels->data();
        out.owner = std::move(pixels);
        out.stride = m_width * 4;
        out.width = m_width;
        out.height = m_height;
        out.pts = pts;
        out.duration = duration;
        return out;
    }

    VideoFrame i420Frame(int64_t index, MediaTime pts, MediaTime duration = MediaTime::make(1, 60))
    {
        const VideoFrame bgra = frame(index, pts, duration);
        const size_t luma = size_t(m_width) * m_height;
        auto planes = std::make_shared<std::vector<uint8_t>>(luma + luma / 2);
        VideoFrame out = bgra;
        out.layout = VideoFrame::Layout::i420;
        out.pixels = planes->data();
        out.u = planes->data() + luma;
        out.v = planes->data() + luma + luma / 4;
        out.stride = m_width;
        out.chromaStride = m_width / 2;
        libyuv::ARGBToI420(bgra.pixels, bgra.stride, planes->data(), out.stride,
                           planes->data() + luma, out.chromaStride,
                           planes->data() + luma + luma / 4, out.chromaStride, m_width, m_height);
        out.owner = std::move(planes);
        return out;
    }

private:
    int m_width;
    int m_height;
};

// The encoder feeding a replay buffer, wired as the capture engine wires them.
class Pipeline
{
public:
    ~Pipeline() { close(); }

    void open(int64_t width, int64_t height)
    {
        close();
        encoder = std::make_unique<VideoEncoder>(
            width, height, [this](EncodedFrame frame, VideoFormatPtr keyFormat) {
                buffer.appendVideo(std::move(frame), std::move(keyFormat));
                std::scoped_lock lock(m_lock);
                ++m_returned;
                m_changed.notify_all();
            });
    }
    void close()
    {
        encoder.reset();
        buffer.invalidate();
    }

    int64_t returned()
    {
        std::scoped_lock lock(m_lock);
        return m_returned;
    }
    // Waits until the encoder has returned `count` frames in all.
    bool waitForReturned(int64_t count)
    {
        std::unique_lock lock(m_lock);
        return m_changed.wait_for(lock, 10s, [&] { return m_returned >= count; });
    }
    // Hands frames over one at a time, waiting for each to come back, so none finds the
    // encoder's queue full.
    void encodeInStep(VideoFrame frame)
    {
        const int64_t before = returned();
        encoder->encode(std::move(frame));
        ASSERT_TRUE(waitForReturned(before + 1));
    }

    ReplayBuffer buffer;
    std::unique_ptr<VideoEncoder> encoder;

private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    int64_t m_returned = 0;
};

// The NAL unit types of a length-prefixed sample, or nothing when it is not well formed.
std::vector<int> nalTypes(const Bytes &sample)
{
    std::vector<int> types;
    const uint8_t *p = sample.data();
    size_t left = sample.size();
    while (left > 0) {
        if (left < 5)
            return {};
        const size_t length = size_t(p[0]) << 24 | size_t(p[1]) << 16 | size_t(p[2]) << 8 | p[3];
        if (length == 0 || length > left - 4 || (p[4] & 0x80))
            return {};
        types.push_back(p[4] & 0x1f);
        p += 4 + length;
        left -= 4 + length;
    }
    return types;
}

struct Decoded
{
    int frames = 0;
    int width = 0;
    int height = 0;
    int redLuma = 0; // at the centre of the red square, in the last picture
    int redCr = 0;
};

// Decodes the stored frames with libavcodec's own H.264 decoder, configured from the avcC alone.
Decoded decode(const ReplayBuffer::Snapshot &snap)
{
    Decoded out;
    const AVCodec *codec = avcodec_find_decoder(AV_CODEC_ID_H264);
    std::unique_ptr<AVCodecContext, void (*)(AVCodecContext *)> context(
        avcodec_alloc_context3(codec), [](AVCodecContext *c) { avcodec_free_context(&c); });
    const auto &avcC = snap.videoFormat->extradata;
    context->extradata =
        static_cast<uint8_t *>(av_mallocz(avcC.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    std::copy(avcC.begin(), avcC.end(), context->extradata);
    context->extradata_size = int(avcC.size());
    if (avcodec_open2(context.get(), codec, nullptr) < 0)
        return out;
    std::unique_ptr<AVPacket, void (*)(AVPacket *)> packet(av_packet_alloc(),
                                                           [](AVPacket *p) { av_packet_free(&p); });
    std::unique_ptr<AVFrame, void (*)(AVFrame *)> picture(av_frame_alloc(),
                                                          [](AVFrame *f) { av_frame_free(&f); });
    auto receive = [&] {
        while (avcodec_receive_frame(context.get(), picture.get()) == 0) {
            ++out.frames;
            out.width = picture->width;
            out.height = picture->height;
            const int c = MovingPicture::redSquare / 2;
            out.redLuma = picture->data[0][c * picture->linesize[0] + c];
            out.redCr = picture->data[2][c / 2 * picture->linesize[2] + c / 2];
        }
    };
    for (const auto &frame : snap.video) {
        if (av_new_packet(packet.get(), int(frame.data.size())) < 0)
            return out;
        std::copy(frame.data.data(), frame.data.data() + frame.data.size(), packet->data);
        if (frame.isKey)
            packet->flags |= AV_PKT_FLAG_KEY;
        if (avcodec_send_packet(context.get(), packet.get()) < 0)
            return out;
        av_packet_unref(packet.get());
        receive();
    }
    avcodec_send_packet(context.get(), nullptr);
    receive();
    return out;
}

// The encoder's start, as the text of its error, or "(started)".
QString startFailure(int64_t width, int64_t height)
{
    try {
        VideoEncoder encoder(width, height, [](EncodedFrame, VideoFormatPtr) {});
    } catch (const RecorderError &error) {
        return error.kind() == RecorderError::Kind::writerFailed ? error.text() : QString();
    }
    return QStringLiteral("(started)");
}

class VideoEncoderTest : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        // The same encoder on every machine; selection has a test of its own.
        setenv("VANTREL_ENCODER", "libx264", 1);
    }
};

} // namespace

TEST_F(VideoEncoderTest, StoresDecodableHighProfileFramesWithExactTimes)
{
    Pipeline pipeline;
    pipeline.open(320, 240);
    EXPECT_EQ(pipeline.encoder->name(), "libx264");
    EXPECT_TRUE(pipeline.encoder->choice().startsWith(QStringLiteral("libx264 at 320x240")));
    int passedOn = 0;
    pipeline.buffer.setOnVideoFrame(
        [&](const EncodedFrame &, const VideoFormatPtr &format) { passedOn += format != nullptr; });

    // 300 frames on a 90 kHz clock from an arbitrary start; every seventh without a duration;
    // BGRA and I420 in turn, the last one I420.
    MovingPicture pictures(320, 240);
    std::vector<MediaTime> sent;
    for (int i = 0; i < 300; ++i) {
        sent.push_back(MediaTime::make(987'654'321 + int64_t(i) * 1500, 90000));
        const MediaTime duration = i % 7 ? MediaTime::make(1500, 90000) : MediaTime::invalid();
        if (i % 2 == 0) {
            pipeline.encodeInStep(pictures.frame(i, sent.back(), duration));
            continue;
        }
        // The encoder takes an I420 frame's planes as they are, and gives them back (to the
        // capture's pool) once it has read them.
        VideoFrame frame = pictures.i420Frame(i, sent.back(), duration);
        std::weak_ptr<const void> planes = frame.owner;
        pipeline.encodeInStep(std::move(frame));
        EXPECT_TRUE(planes.expired()) << i;
    }

    EXPECT_EQ(pipeline.returned(), 300);
    // The buffer passes a frame on before the sink counts it.
    EXPECT_EQ(passedOn, 300);
    const auto snap = pipeline.buffer.snapshot();
    ASSERT_EQ(snap.video.size(), 300u);
    EXPECT_TRUE(snap.video[0].isKey);
    size_t lastKey = 0;
    for (size_t i = 0; i < snap.video.size(); ++i) {
        const auto &frame = snap.video[i];
        // The capture's times come back untouched: same value, same timescale.
        EXPECT_EQ(frame.pts.value, sent[i].value) << i;
        EXPECT_EQ(frame.pts.timescale, 90000) << i;
        EXPECT_EQ(frame.duration, i % 7 ? MediaTime::make(1500, 90000) : MediaTime::make(1, 60));
        const std::vector<int> types = nalTypes(frame.data);
        ASSERT_FALSE(types.empty()) << "frame " << i << " is not length-prefixed NAL units";
        const bool hasIdr = std::find(types.begin(), types.end(), 5) != types.end();
        EXPECT_EQ(hasIdr, frame.isKey) << i;
        if (frame.isKey) {
            EXPECT_LE(i - lastKey, 120u) << i;
            lastKey = i;
        }
    }
    EXPECT_LE(snap.video.size() - lastKey, 120u);

    ASSERT_TRUE(snap.videoFormat);
    EXPECT_EQ(snap.videoFormat->width, 320);
    EXPECT_EQ(snap.videoFormat->height, 240);
    const auto &avcC = snap.videoFormat->extradata;
    ASSERT_GE(avcC.size(), 7u);
    EXPECT_EQ(avcC[0], 1);
    EXPECT_EQ(avcC[1], 100) << "profile_idc: High";
    EXPECT_EQ(avcC[4], 0xff) << "4-byte lengths";

    const Decoded decoded = decode(snap);
    EXPECT_EQ(decoded.frames, 300);
    EXPECT_EQ(decoded.width, 320);
    EXPECT_EQ(decoded.height, 240);
    // Pure red in BT.601 limited range is Y 81, Cr 240; swapped channels would read as blue
    // (Y 41, Cr 110).
    EXPECT_NEAR(decoded.redLuma, 81, 8);
    EXPECT_NEAR(decoded.redCr, 240, 10);
}

TEST_F(VideoEncoderTest, KeyFramesComeEveryTwoSecondsHoweverSparseTheFrames)
{
    Pipeline pipeline;
    pipeline.open(160, 96);
    MovingPicture pictures(160, 96);
    // A mostly still screen: a frame every 0.3 s for 12 s, far fewer than 120 frames.
    for (int i = 0; i < 40; ++i)
        pipeline.encodeInStep(pictures.frame(i, replay_test::nanos(100 + i * 0.3)));
    const auto snap = pipeline.buffer.snapshot();
    ASSERT_EQ(snap.video.size(), 40u);
    MediaTime lastKey = snap.video[0].pts;
    int keys = 0;
    for (const auto &frame : snap.video) {
        if (!frame.isKey) {
            EXPECT_LT((frame.pts - lastKey).seconds(), 2.0);
        } else {
            lastKey = frame.pts;
            ++keys;
        }
    }
    EXPECT_GE(keys, 6);
    EXPECT_LE(keys, 8) << "key frames should not come more often than needed";

    // Asked for (the replay was emptied by a save), the very next frame is a key frame.
    pipeline.encodeInStep(pictures.frame(40, replay_test::nanos(112.1)));
    pipeline.encoder->requestKeyFrame();
    pipeline.encodeInStep(pictures.frame(41, replay_test::nanos(112.2)));
    pipeline.encodeInStep(pictures.frame(42, replay_test::nanos(112.3)));
    const auto after = pipeline.buffer.snapshot();
    ASSERT_EQ(after.video.size(), 43u);
    EXPECT_FALSE(after.video[40].isKey);
    EXPECT_TRUE(after.video[41].isKey);
    EXPECT_FALSE(after.video[42].isKey);
}

TEST_F(VideoEncoderTest, EncodesOnlyNewPicturesOfItsSizeAndNothingOnceClosed)
{
    Pipeline pipeline;
    pipeline.open(160, 96);
    MovingPicture small(160, 96);
    // Idle frames and frames without pixels carry nothing new; frames of another size do not
    // fit. None of them comes back.
    VideoFrame idle = small.frame(0, replay_test::frameTime(0));
    idle.status = VideoFrame::Status::idle;
    pipeline.encoder->encode(idle);
    pipeline.encoder->encode(VideoFrame {});
    pipeline.encoder->encode(MovingPicture(320, 240).frame(1, replay_test::frameTime(1)));
    for (int i = 0; i < 10; ++i)
        pipeline.encodeInStep(small.frame(i, replay_test::frameTime(10 + i)));
    EXPECT_EQ(pipeline.returned(), 10);
    auto snap = pipeline.buffer.snapshot();
    ASSERT_EQ(snap.video.size(), 10u);
    EXPECT_EQ(snap.video.front().pts, replay_test::frameTime(10));
    EXPECT_EQ(snap.videoFormat->width, 160);

    // A picture already in the encoder's planes goes in as it is; one in other planes does not.
    FFmpeg::FramePtr planes(av_frame_alloc());
    planes->format = pipeline.encoder->inputFormat();
    planes->width = 160;
    planes->height = 96;
    ASSERT_EQ(av_frame_get_buffer(planes.get(), 0), 0);
    ASSERT_EQ(av_frame_make_writable(planes.get()), 0);
    for (int plane = 0; plane < 3; ++plane)
        std::memset(planes->data[plane], 90 + plane, size_t(planes->linesize[plane]) * 48);
    pipeline.encoder->encode(*planes, replay_test::frameTime(20), MediaTime());
    planes->format = AV_PIX_FMT_RGB24;
    pipeline.encoder->encode(*planes, replay_test::frameTime(21), MediaTime());
    EXPECT_EQ(pipeline.returned(), 11);
    EXPECT_EQ(pipeline.buffer.snapshot().video.back().pts, replay_test::frameTime(20));

    pipeline.encoder.reset();
    pipeline.buffer.invalidate();
    EXPECT_EQ(pipeline.buffer.videoCount(), 0);
    EXPECT_EQ(pipeline.returned(), 11);
}

TEST_F(VideoEncoderTest, EncodersThatCannotStartSayWhy)
{
    const QString invalid = QStringLiteral("Could not start the video encoder (%1): %2.");
    EXPECT_EQ(startFailure(0, 240),
              invalid.arg(AVERROR(EINVAL)).arg(QStringLiteral("no encoder takes 0x240 pixels")));
    EXPECT_EQ(startFailure(320, -2),
              invalid.arg(AVERROR(EINVAL)).arg(QStringLiteral("no encoder takes 320x-2 pixels")));
    EXPECT_EQ(
        startFailure(int64_t(1) << 32, 240),
        invalid.arg(AVERROR(EINVAL)).arg(QStringLiteral("no encoder takes 4294967296x240 pixels")));

    setenv("VANTREL_ENCODER", "h264_nonesuch", 1);
    EXPECT_EQ(startFailure(320, 240),
              invalid.arg(AVERROR_ENCODER_NOT_FOUND)
                  .arg(QStringLiteral("h264_nonesuch: no such encoder")));
    // Without their hardware (as on the test machines) the other families fail with a libav
    // status and their reason instead of crashing or hanging; with it, they simply open.
    for (const char *name : {"h264_vaapi", "h264_nvenc", "h264_qsv"}) {
        setenv("VANTREL_ENCODER", name, 1);
        const QString outcome = startFailure(320, 240);
        if (outcome != QStringLiteral("(started)")) {
            EXPECT_TRUE(outcome.startsWith(QStringLiteral("Could not start the video encoder (-")))
                << name << ": " << outcome.toStdString();
            EXPECT_TRUE(outcome.contains(QStringLiteral("): %1: ").arg(QLatin1String(name))))
                << name << ": " << outcome.toStdString();
        }
    }

    // Left to choose, it says which family it took and why it passed the others over.
    unsetenv("VANTREL_ENCODER");
    VideoEncoder chosen(320, 240, [](EncodedFrame, VideoFormatPtr) {});
    EXPECT_TRUE(chosen.choice().startsWith(
        QStringLiteral("%1 at 320x240").arg(QString::fromStdString(chosen.name()))))
        << chosen.choice().toStdString();
}
