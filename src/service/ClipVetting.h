#pragma once

#include "service/ClipProbe.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// An upload's check and its poster frame, each made by a child process of the service: the
// running executable again, as `vantrel-service inspect-clip FILE`. The child limits its own
// address space, CPU time and core files before it opens the file, so a file built to make FFmpeg
// take gigabytes or crash takes down the child only; the server reads its report and the poster's
// JPEG from a pipe and waits for it a bounded time. The check answers the upload; the poster is
// made afterwards, from the file the server keeps open for it.
struct ClipVetting
{
    ClipProbeResult probe;
    // The child could not be started at all: the service's fault, not the file's.
    bool childFailed = false;

    // How much memory the child may take beyond what it starts with, how long it may take.
    struct Budget
    {
        uint64_t memoryBytes = uint64_t(512) << 20;
        int seconds = 30;
        VideoBounds bounds;
    };

    // Checks `path`. A child that could not start, ran out of its budget or died before
    // reporting refuses the file.
    static ClipVetting check(const std::string &path, const Budget &budget);
    // The poster (a JPEG) of the checked file open as `fd`; none when the child made none (its
    // first picture did not decode within the budget).
    static std::optional<std::string> makePoster(int fd, const Budget &budget);

    // The child's side (`inspect-clip FILE --memory BYTES --seconds S --width W --height H
    // [--no-poster]`): writes its report line, then the JPEG, to standard output. Returns the
    // exit status.
    static int child(const std::vector<std::string> &arguments);
    // The same within this process (a child already): limits itself, then writes to `output`.
    static int inspect(const std::string &file, const Budget &budget, bool poster, int output);
};
