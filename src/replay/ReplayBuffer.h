#pragma once

#include "media/AudioPacket.h"
#include "media/AudioSampleBuffer.h"
#include "media/Bytes.h"
#include "media/EncodedFrame.h"
#include "media/MediaFormat.h"
#include "media/MediaTime.h"
#include "replay/RecordList.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

// The most recent stretch of the capture, in memory: compressed video frames as they leave the
// encoder and audio packets as captured. Trimmed on every append to what the settings keep at
// that moment (ClipSettings::keptDuration: the longest length a key or the clip length asks for)
// back to a key frame, with the audio trimmed against the video.
// It knows nothing of encoding or of files: the encoder's output is appended to it, and the
// export takes a snapshot and writes it elsewhere.
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
    };

    using VideoCallback = std::function<void(const EncodedFrame &, const VideoFormatPtr &)>;
    using AudioCallback = std::function<void(const AudioPacket &)>;

    // How far before the first video frame audio is kept, and so how much audio before its
    // first frame a clip may open with (written at zero). A packet that starts up to this long
    // before the frame still carries the sound of the frame's moment; anything older is not
    // heard in the clip.
    static constexpr MediaTime audioLead = MediaTime::make(120, 600); // 0.2 s

    ReplayBuffer() = default;
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

    // The video path: store one compressed frame as the encoder hands it on. `keyFormat` is the
    // format the encoder reported with the frame, if any; it becomes the buffer's video format
    // at key frames. The frame is passed on to `onVideoFrame` once a video format is known.
    void appendVideo(EncodedFrame frame, VideoFormatPtr keyFormat);

    // Empties the three lists and forgets the three formats.
    void invalidate();

    double bufferedDuration() const; // seconds from the first to the last frame's time stamp
    int videoCount() const;
    int audioCount() const; // system audio only
    // The payload bytes of every stored frame and packet (video, system audio, microphone): what
    // the replay costs in memory, over `bufferedDuration` seconds of it.
    size_t heldBytes() const;
    Snapshot snapshot() const;
    // Drops every record `snapshot` holds that is still here, and whatever came before it, so
    // that what is left begins with the first record stored after the snapshot was taken (the
    // replay "starts empty" after a save). The formats stay. What is left may open on a frame
    // that is not a key frame; clips skip to the first key frame, and trimming cuts at key frames
    // after it as usual.
    void dropThrough(const Snapshot &snapshot);

private:
    void appendAudioPacket(const AudioSampleBuffer &sample, bool isMic);
    void trimLocked(double keptSeconds);

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
};
