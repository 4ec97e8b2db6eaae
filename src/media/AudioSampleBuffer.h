#pragma once

#include "media/Bytes.h"
#include "media/MediaFormat.h"
#include "media/MediaTime.h"

#include <cstdint>
#include <span>

// One captured audio buffer as a capture stream hands it over, before anything stores it: views
// into the stream's own memory, valid for the duration of the handler's call only.
struct AudioSampleBuffer
{
    // One piece for interleaved audio, one per channel for planar audio, in order.
    std::span<const std::span<const uint8_t>> buffers;
    MediaTime pts;
    MediaTime duration; // may be invalid or zero: worked out from the sample count then
    int64_t numSamples = 0; // frames, i.e. samples per channel
    AudioFormatPtr format;
    // When set, the bytes already belong to the pipeline (the capture copied them out of the
    // audio server once): they are stored as they are and `buffers` is not read.
    Bytes owned;
};
