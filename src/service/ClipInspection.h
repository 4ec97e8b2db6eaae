#pragma once

#include "service/ClipProbe.h"

#include <cstdint>
#include <string>
#include <vector>

class PendingFile;

// An upload's check and its poster frame, made by a child process of the service: the running
// executable again, as `vantrel-service inspect-clip FILE`. The child limits its own address
// space, CPU time and core files before it opens the file, so a file built to make FFmpeg take
// gigabytes or crash takes down the child only; the server reads its report and the poster's
// JPEG from a pipe and waits for it a bounded time.
struct ClipInspection
{
    ClipProbeResult probe;
    bool hasPoster = false;
    // The child could not be started at all: the service's fault, not the file's.
    bool childFailed = false;

    // How much memory the child may take beyond what it starts with, how long it may take.
    struct Budget
    {
        uint64_t memoryBytes = uint64_t(512) << 20;
        int seconds = 30;
        VideoBounds bounds;
    };

    // Checks `path`; when the file is taken, writes its poster into `poster`. A child that
    // could not start, ran out of its budget or died before reporting refuses the file.
    static ClipInspection run(const std::string &path, PendingFile &poster, const Budget &budget);

    // The child's side (`inspect-clip FILE --memory BYTES --seconds S --width W --height H`):
    // writes its report line, then the JPEG, to standard output. Returns the exit status.
    static int child(const std::vector<std::string> &arguments);
};
