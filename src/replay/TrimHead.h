#pragma once

#include "media/EncodedFrame.h"
#include "media/MediaFormat.h"

#include <cstddef>
#include <vector>

class TrimSource;

// The start of a cut that does not open on a key frame, made anew: the clip's frames from the
// key frame before the cut's first frame are decoded, and those from its first frame on are
// encoded again with the capture's own encoder settings (libx264, as VideoEncoder opens it), so
// that the cut opens on a key frame of its own and shows exactly the frames asked for. Its SPS
// and PPS carry the id `parameterSetId`, so that they sit beside the clip's own in one avcC.
namespace TrimHead {

struct Made
{
    std::vector<EncodedFrame> frames; // times as in the clip's video track
    VideoFormatPtr format; // the avcC of the frames made
};

// Makes video samples [first, end) of `source`, decoding from sample `key` (a key frame at or
// before `first`). Throws RecorderError::writerFailed with a sentence for the user.
Made make(const TrimSource &source, size_t key, size_t first, size_t end, int parameterSetId);

} // namespace TrimHead
