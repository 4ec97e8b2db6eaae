#pragma once

#include "media/EncodedFrame.h"
#include "media/FFmpegHandles.h"
#include "media/MediaFormat.h"
#include "media/MediaTime.h"
#include "media/VideoFrame.h"
#include "replay/VideoEncoderBackends.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <QString>

class SerialQueue;

// One H.264 compression session for captured frames of one size, over libavcodec. The families
// are tried hardware first (VANTREL_ENCODER=<name> forces one); the settings are fixed: High
// profile, 18 Mbit/s on average and never more than 8,000,000 bytes in a second, 60 fps, a key
// frame at least every 120 frames and every 2 s, no B-frames, no more than a frame of delay, and
// the SPS/PPS kept out of band as an avcC record.
//
// `encode` converts the BGRA frame on the caller's thread (FrameConverter) and queues it; the
// encoder runs on a thread of its own, the only one that touches the codec context, and hands
// each compressed frame to `output` there, in order, as length-prefixed NAL units with the
// capture's own time stamps. It knows nothing of where the frames go: whoever makes it says so
// with `output` (the capture engine: the replay buffer).
class VideoEncoder
{
public:
    // `keyFormat` is set at key frames (once the encoder has produced its SPS/PPS).
    using Output = std::function<void(EncodedFrame frame, VideoFormatPtr keyFormat)>;

    // Converted frames waiting for, or inside, the encoder thread. A frame that finds the queue
    // full is dropped: the encoder is behind real time, and holding the capture queue back
    // would only make every later frame late too.
    static constexpr int maxWaiting = 2;

    // Opens the first family that accepts the settings at this size; choice() says which one it
    // is and why the others were passed over. When none does, throws
    // RecorderError::writerFailed("Could not start the video encoder (<status>): <why>.") with
    // the last family's libav status and what each family said.
    VideoEncoder(int64_t width, int64_t height, Output output);
    // Frames still waiting are discarded; a frame being encoded finishes first. Once this
    // returns, `output` is never called again. Must not run on the encoder's thread.
    ~VideoEncoder();
    VideoEncoder(const VideoEncoder &) = delete;
    VideoEncoder &operator=(const VideoEncoder &) = delete;

    // Hands one captured frame to the encoder. Idle frames and frames without pixels carry
    // nothing new and are ignored. A failed submission among the first five frames handed over
    // is reported in the system log ("encode status <status>"), later ones are silent. Call
    // from one thread at a time.
    void encode(const VideoFrame &frame);

    // The libavcodec encoder in use ("libx264").
    const std::string &name() const { return m_name; }
    // For the log: "libx264 at 1920x1080 (h264_vaapi: no render node; …)".
    const QString &choice() const { return m_choice; }

private:
    using FramePtr = FFmpeg::FramePtr;

    struct Job
    {
        FramePtr picture;
        MediaTime pts;
        MediaTime duration;
        int64_t ordinal = 0;
    };

    // The capture's own times of a frame inside the encoder, found again by the nanosecond
    // time the encoder was given.
    struct Timing
    {
        int64_t encoderPts = 0;
        MediaTime pts;
        MediaTime duration;
    };

    void open(int64_t width, int64_t height);
    FramePtr takePicture();
    // Takes back a picture the encoder is done with and frees its place in the queue.
    void release(FramePtr picture);
    static void reportSubmission(int status, int64_t ordinal);

    // These run on the encoder thread only.
    void encodeOnQueue(Job &job);
    void receivePackets();
    void deliver(const AVPacket &packet);
    bool takeTiming(int64_t encoderPts, Timing &timing);
    void adoptFormat(const std::vector<std::span<const uint8_t>> &units);

    const Output m_output;
    std::string m_name;
    QString m_choice;
    int64_t m_handedOver = 0; // frames given to encode(), on the caller's thread
    int m_width = 0;
    int m_height = 0;
    AVPixelFormat m_inputFormat = AV_PIX_FMT_NONE;
    bool m_annexB = true; // how the encoder writes its packets

    // Used on the encoder thread only (after the constructor).
    FFmpeg::CodecContextPtr m_context;
    FFmpeg::BufferPtr m_hwFrames;
    FFmpeg::PacketPtr m_packet;
    VideoFormatPtr m_format;
    std::deque<Timing> m_timings; // submitted frames not yet returned, oldest first
    int64_t m_lastEncoderPts = 0;
    bool m_anySubmitted = false;
    MediaTime m_lastKeyPts; // invalid until the first frame

    std::atomic<int> m_waiting {0};
    std::atomic<bool> m_stopping {false};

    // m_poolLock guards m_pool: converted-frame buffers handed back by the encoder thread for
    // the next conversion, so 3 MB are not allocated and faulted in for every frame.
    std::mutex m_poolLock;
    std::vector<FramePtr> m_pool;

    std::unique_ptr<SerialQueue> m_queue;
};
