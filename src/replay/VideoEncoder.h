#pragma once

#include "media/BytesArena.h"
#include "media/EncodedFrame.h"
#include "media/FFmpegHandles.h"
#include "media/MediaFormat.h"
#include "media/MediaTime.h"
#include "media/VideoFrame.h"
#include "replay/VideoEncoderBackends.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <QString>

// One H.264 compression session for captured frames of one size, over libavcodec. The families
// are tried hardware first (VANTREL_ENCODER=<name> forces one); the settings are fixed: High
// profile, 18 Mbit/s on average and never more than 8,000,000 bytes in a second, 60 fps, a key
// frame at least every 120 frames and every 2 s, no B-frames, no more than a frame of delay, and
// the SPS/PPS kept out of band as an avcC record.
//
// `encode` runs on the caller's thread: an I420 frame that is already the encoder's input is handed
// over as it is, anything else is converted once, straight into the picture the encoder reads
// (FrameConverter); the compressed frame is handed to `output` before `encode` returns (software
// encoders spread the work over threads of their own). The caller's thread is the pipeline's
// encoder stage; a frame that arrives while it is busy waits in, or is skipped by, the capture's
// queue, so nothing here holds frames back. Each compressed frame goes out as length-prefixed NAL
// units with the capture's own time stamps. It knows nothing of where the frames go: whoever makes
// it says so with `output` (the capture engine: the replay buffer).
class VideoEncoder
{
public:
    // The average rate every family is held to, in bits per second.
    static constexpr int64_t averageBitRate = VideoEncoderBackends::averageBitRate;

    // `keyFormat` is set at key frames (once the encoder has produced its SPS/PPS).
    using Output = std::function<void(EncodedFrame frame, VideoFormatPtr keyFormat)>;

    // Opens the first family that accepts the settings at this size; choice() says which one it
    // is and why the others were passed over. When none does, throws
    // RecorderError::writerFailed("Could not start the video encoder (<status>): <why>.") with
    // the last family's libav status and what each family said.
    VideoEncoder(int64_t width, int64_t height, Output output);
    // libx264 alone, with the same settings, its SPS and PPS numbered `parameterSetId` (1 to 31)
    // so that they can sit beside another stream's in one file: a trimmed copy's re-encoded
    // start. Fails as the other does.
    VideoEncoder(int64_t width, int64_t height, Output output, int parameterSetId);
    ~VideoEncoder();
    VideoEncoder(const VideoEncoder &) = delete;
    VideoEncoder &operator=(const VideoEncoder &) = delete;

    // Encodes one captured frame, a repeated picture too. Idle frames and frames without pixels
    // carry nothing and are ignored. A failed submission among the first five frames handed over is
    // reported in the system log ("encode status <status>"), later ones are silent. Call from one
    // thread at a time. Given the frame to keep, the encoder lets go of its pixels (`owner`) as
    // soon as they are converted, before the encoder proper runs, so the capture can reuse the
    // buffer.
    void encode(VideoFrame &&frame);
    void encode(const VideoFrame &frame) { encode(VideoFrame(frame)); }
    // The same for a picture already in the encoder's input format (inputFormat(), at the
    // encoder's size), taken as it is: a file's or another converter's frames.
    void encode(const AVFrame &picture, MediaTime pts, MediaTime duration);

    // Hands out the frames the encoder still holds; nothing can be encoded after this.
    void finish();

    // The next frame encoded is a key frame (the first of a new clip when the replay was emptied
    // after a save). Call on the thread that encodes.
    void requestKeyFrame() { m_keyFrameRequested = true; }

    // The libavcodec encoder in use ("libx264").
    const std::string &name() const { return m_name; }
    // For the log: "libx264 at 1920x1080 (h264_vaapi: no render node; …)".
    const QString &choice() const { return m_choice; }
    // The planes encode() converts captured frames into: I420 or NV12.
    AVPixelFormat inputFormat() const { return m_inputFormat; }

private:
    using FramePtr = FFmpeg::FramePtr;

    // The capture's own times of a frame inside the encoder, found again by the nanosecond
    // time the encoder was given.
    struct Timing
    {
        int64_t encoderPts = 0;
        MediaTime pts;
        MediaTime duration;
    };

    VideoEncoder(int64_t width, int64_t height, Output output, std::optional<int> parameterSetId);
    void open(int64_t width, int64_t height, std::optional<int> parameterSetId);
    // The picture conversions write into; made once, and again only while the encoder still
    // holds on to the last one (hardware encoders read their input later).
    AVFrame *writablePicture();
    // An I420 frame's own planes as a picture for the encoder, holding `owner` as long as the
    // encoder holds the picture; null when out of memory. Made in one picture kept for the
    // purpose, which the caller unreferences once the encoder has its own reference.
    AVFrame *borrowedPicture(const VideoFrame &frame, std::shared_ptr<const void> owner);
    void submit(AVFrame &picture, MediaTime pts, MediaTime duration, int64_t ordinal);
    static void reportSubmission(int status, int64_t ordinal);
    void receivePackets();
    void deliver(const AVPacket &packet);
    bool takeTiming(int64_t encoderPts, Timing &timing);
    void adoptFormat(const std::vector<std::span<const uint8_t>> &units);

    const Output m_output;
    std::string m_name;
    QString m_choice;
    int64_t m_handedOver = 0; // frames given to encode()
    int m_width = 0;
    int m_height = 0;
    AVPixelFormat m_inputFormat = AV_PIX_FMT_NONE;
    bool m_annexB = true; // how the encoder writes its packets
    // The frames handed on live here: the replay buffer keeps them in order for minutes.
    BytesArena m_payloads;

    FFmpeg::CodecContextPtr m_context;
    FFmpeg::BufferPtr m_hwFrames;
    FFmpeg::PacketPtr m_packet;
    FramePtr m_picture; // what conversions write into
    FramePtr m_borrowed; // an I420 frame's planes on their way in
    FramePtr m_uploaded; // a hardware encoder's copy of it
    VideoFormatPtr m_format;
    std::deque<Timing> m_timings; // submitted frames not yet returned, oldest first
    int64_t m_lastEncoderPts = 0;
    bool m_anySubmitted = false;
    MediaTime m_lastKeyPts; // invalid until the first frame
    bool m_keyFrameRequested = false;
};
