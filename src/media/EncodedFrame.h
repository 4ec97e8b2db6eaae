#pragma once

#include "media/Bytes.h"
#include "media/MediaTime.h"

// One compressed video frame as the encoder hands it on and the replay buffer keeps it.
struct EncodedFrame
{
    Bytes data; // length-prefixed H.264 NAL units, as MP4 samples carry them; never empty
    MediaTime pts;
    MediaTime duration; // never invalid or zero
    bool isKey = false;
};
