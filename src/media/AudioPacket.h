#pragma once

#include "media/Bytes.h"
#include "media/MediaFormat.h"
#include "media/MediaTime.h"

#include <cstdint>

// One captured audio packet as the replay buffer keeps it: the bytes copied out of the capture
// once, with the format they are in.
struct AudioPacket
{
    Bytes data; // planar audio: the channel buffers back to back
    MediaTime pts;
    MediaTime duration; // never invalid or zero
    int64_t numSamples = 0;
    AudioFormatPtr format;
};
