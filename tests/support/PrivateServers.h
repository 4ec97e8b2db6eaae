#pragma once

#include "support/ChildProcess.h"

#include <memory>
#include <string>

// X and audio servers that one test or benchmark starts for itself (the shared ctest fixtures
// must survive the tests that kill a server). The X servers pick a free display number themselves
// (-displayfd), so they never meet another build's servers. On failure `server` is null and
// `error` says why.
struct PrivateServer
{
    std::unique_ptr<ChildProcess> server;
    std::string address; // ":N" for X, "unix:/path" for PulseAudio
    std::string error;
};

// Xvfb with one screen of `size` (WxH).
PrivateServer startXvfb(const std::string &dir, const std::string &size = "1920x1080");

// Xorg with the dummy driver: 16 RandR outputs, DUMMY0 on at 1920x1080, room for a second
// monitor to its right. Needs root; `error` carries the end of Xorg's log when it cannot run.
PrivateServer startXorgDummy(const std::string &dir);

// PulseAudio with a null sink "private_null" as the default sink.
PrivateServer startPulse(const std::string &dir);
