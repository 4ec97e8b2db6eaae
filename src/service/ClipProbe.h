#pragma once

#include <cstdint>
#include <string>

class PendingFile;

// What an uploaded file is, checked before it is accepted: an MP4 (an "ftyp" box first, and
// libavformat can open it) with an H.264 video stream whose picture, as the file's header gives
// it, fits the bounds. Nothing is decoded to learn this.
struct ClipProbeResult
{
    bool isMp4 = false;
    std::string problem; // a sentence for the uploader when it is not
    int width = 0;
    int height = 0;
    int64_t durationMs = 0;
};

// The largest picture taken, either way round (a portrait clip is as welcome as a landscape).
struct VideoBounds
{
    int maxWidth = 7680;
    int maxHeight = 4320;
};

namespace ClipProbe {

// Quiets FFmpeg's own logging: a bad upload is reported to its sender, not on the console.
void silenceLibraryLog();

// The first check (this or writePoster) caps the size of any one block FFmpeg allocates in this
// process, so that a small file cannot make the demuxer take gigabytes.
ClipProbeResult probe(const std::string &path, const VideoBounds &bounds = {});

// Decodes the first picture of a clip that probe() accepts and writes it to `poster` as a JPEG
// at most 1280 pixels wide; false when no picture could be decoded. The decoder is told the
// bounds too, so a stream whose own parameters claim a larger picture than the file's header
// is refused before a frame is allocated. Decoding hostile input is what the service does in a
// child process with bounded memory (ClipVetting), never in the server itself.
bool writePoster(const std::string &path, PendingFile &poster, const VideoBounds &bounds = {});

} // namespace ClipProbe
