#pragma once

#include "media/AudioPacket.h"
#include "media/AudioSampleBuffer.h"
#include "media/Bytes.h"
#include "media/EncodedFrame.h"
#include "media/MediaFormat.h"
#include "media/MediaTime.h"
#include "media/VideoFrame.h"
#include "replay/RecordList.h"

#include <QFuture>
#include <QString>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

class VideoEncoder;

// The most recent stretch of the capture, in memory: compressed video frames as they leave the
// encoder and audio packets as captured. Trimmed on every append to the clip length (read from
// the settings at that moment) back to a key frame, with the audio trimmed against the video.
// It knows nothing of files: the export takes a snapshot and writes it elsewhere.
class ReplayBuffer
{
public:
    // The records it keeps, as the encoder and the capture make them.
    using EncodedFrame = ::EncodedFrame;
    using AudioPacket = ::AudioPacket;

    // What the export works from: the lists and formats as they were at one moment. The records
    // and their payloads are shared with the buffer, not copied.
    struct Snapshot
    {
        RecordList<EncodedFrame> video;
        RecordList<AudioPacket> audio;
        RecordList<AudioPacket> mic;
        VideoFormatPtr videoFormat;
        AudioFormatPtr audioFormat;
        AudioFormatPtr micFormat;
        int64_t framesIn = 0;
        int64_t framesEncoded = 0;
    };

    using VideoCallback = std::function<void(const EncodedFrame &, const VideoFormatPtr &)>;
    using AudioCallback = std::function<void(const AudioPacket &)>;

    ReplayBuffer();
    // Closes the encoder first: its thread stores into this buffer.
    ~ReplayBuffer();
    ReplayBuffer(const ReplayBuffer &) = delete;
    ReplayBuffer &operator=(const ReplayBuffer &) = delete;

    // Called after each record is stored, on the thread that stored it, outside the lock. Set
    // or clear them at any time; a record being stored at that moment sees the old or the new.
    void setOnVideoFrame(VideoCallback callback);
    void setOnAudioPacket(AudioCallback callback);
    void setOnMicPacket(AudioCallback callback);

    // The audio paths: store one buffer from the capture stream. Malformed buffers (no samples,
    // no format, no bytes) are dropped silently.
    void appendAudio(const AudioSampleBuffer &sample) { appendAudioPacket(sample, false); }
    void appendMic(const AudioSampleBuffer &sample) { appendAudioPacket(sample, true); }

    // The video path. `prepare` empties the buffer and opens an encoder for frames of this size
    // (throwing RecorderError::writerFailed when none opens) with both counters at 0;
    // `encodeVideo` hands it one captured frame (idle frames and frames without pixels are
    // ignored); the encoder stores what it makes through storeEncodedFrame, on its own thread.
    // `prepare` and `invalidate` must not run while `encodeVideo` does: the capture engine calls
    // them before its stream starts and after it has stopped passing frames on.
    void prepare(int64_t width, int64_t height);
    void encodeVideo(const VideoFrame &frame);
    // The libavcodec encoder in use, or empty without one.
    std::string encoderName() const;

    // The encoder's way in: store one compressed frame. `keyFormat` is the format the encoder
    // reported with the frame, if any; it becomes the buffer's video format at key frames. The
    // frame is passed on to `onVideoFrame` once a video format is known.
    void storeEncodedFrame(EncodedFrame frame, VideoFormatPtr keyFormat);

    // Closes the encoder, discarding frames still inside it, then empties the three lists and
    // forgets the three formats. Nothing is stored after it returns (until the next prepare).
    // Must not be called from a callback that runs on the encoder's thread.
    void invalidate();

    double bufferedDuration() const; // seconds from the first to the last frame's time stamp
    int videoCount() const;
    int audioCount() const; // system audio only
    Snapshot snapshot() const;

    // Writes the last stretch of the buffer into a new clip in the recordings folder and answers
    // with its path, or fails with a RecorderError whose text the user sees. The snapshot is
    // taken before this returns; the file is written on the process-wide export queue, so
    // capture goes on appending meanwhile. (Defined with the rest of the export.)
    QFuture<QString> exportClip() const;

    // Captured frames handed to the encoder, and frames it returned, since it was last prepared.
    std::atomic<int64_t> framesIn {0};
    int64_t framesEncoded() const;
    void resetCounters();

private:
    void appendAudioPacket(const AudioSampleBuffer &sample, bool isMic);
    void trimLocked(double maxDurationSeconds);

    // Written by prepare and invalidate and read by encodeVideo, which never overlap; not
    // guarded by m_lock, since closing it waits for its thread, which takes the lock.
    std::unique_ptr<VideoEncoder> m_session;

    // m_lock guards every member below it. It is held only for a list update with its trim, the
    // read-outs, the clearing and the snapshot; never while calling out (callbacks, encoder,
    // settings, files).
    mutable std::mutex m_lock;
    std::shared_ptr<const VideoCallback> m_onVideoFrame;
    std::shared_ptr<const AudioCallback> m_onAudioPacket;
    std::shared_ptr<const AudioCallback> m_onMicPacket;
    VideoFormatPtr m_videoFormat; // of the most recent key frame
    AudioFormatPtr m_audioFormat; // of the first system-audio packet since the last clear
    AudioFormatPtr m_micFormat; // of the first microphone packet since the last clear
    RecordStore<EncodedFrame> m_video; // arrival order, which is presentation order
    RecordStore<AudioPacket> m_audio;
    RecordStore<AudioPacket> m_mic;
    int64_t m_framesEncoded = 0;
};
