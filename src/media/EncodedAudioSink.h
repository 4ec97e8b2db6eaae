#pragma once

#include "media/MediaTime.h"

extern "C" {
struct AVCodecParameters;
struct AVPacket;
}

// Whoever keeps the AAC that a writer makes of an audio track (the replay's audio history). The
// writer calls it on its queue: begin() when its session starts, append() for every packet as it
// reaches the file, close() once nothing more will come (the writer finished or failed).
class EncodedAudioSink
{
public:
    virtual ~EncodedAudioSink() = default;

    // The track's stream parameters, and the source time of its sample zero.
    virtual void begin(const AVCodecParameters &parameters, MediaTime sourceZero) = 0;
    // One packet, stamped in samples from sample zero.
    virtual void append(const AVPacket &packet) = 0;
    virtual void close() = 0;
};
