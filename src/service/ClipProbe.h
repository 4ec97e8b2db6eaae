#pragma once

#include <cstdint>
#include <string>

class PendingFile;

// What an uploaded file is, checked before it is accepted: an MP4 (an "ftyp" box first, and
// libavformat can open it) with a video stream.
struct ClipProbeResult
{
    bool isMp4 = false;
    std::string problem; // a sentence for the uploader when it is not
    int width = 0;
    int height = 0;
    int64_t durationMs = 0;
};

namespace ClipProbe {

// Quiets FFmpeg's own logging: a bad upload is reported to its sender, not on the console.
void silenceLibraryLog();

// The first check (this or writePoster) caps the size of any one block FFmpeg allocates in this
// process, so that a small file cannot make the demuxer take gigabytes.
ClipProbeResult probe(const std::string &path);

// Decodes the first picture of the clip and writes it to `poster` as a JPEG at most 1280 pixels
// wide; false when no picture could be decoded.
bool writePoster(const std::string &path, PendingFile &poster);

} // namespace ClipProbe
