#pragma once

#include "capture/Bytes.h"
#include "capture/MediaFormat.h"
#include "capture/MediaTime.h"

#include <cstdint>

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
