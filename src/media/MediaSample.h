#pragma once

#include "media/AudioPacket.h"
#include "media/Bytes.h"
#include "media/EncodedFrame.h"
#include "media/MediaFormat.h"
#include "media/MediaTime.h"

#include <cstdint>
#include <optional>

// One stored record made ready for a writer: its payload and time stamps together with the
// format that describes them. The payload is shared with the record, not copied.
struct MediaSample
{
    enum class Kind { video, audio };

    Kind kind = Kind::video;
    Bytes data;
    MediaTime pts;
    MediaTime duration;
    bool isKey = false; // video: a sync sample that later frames may depend on
    int64_t numSamples = 0; // audio: frames, i.e. samples per channel
    VideoFormatPtr videoFormat;
    AudioFormatPtr audioFormat;
};

// A stored record as a writer takes it, with the record's own time stamps; none for a record that
// holds nothing to write (no bytes, no samples, no format).
std::optional<MediaSample> makeVideoSample(const EncodedFrame &frame, const VideoFormatPtr &format);
std::optional<MediaSample> makeAudioSample(const AudioPacket &packet, const AudioFormatPtr &format);
