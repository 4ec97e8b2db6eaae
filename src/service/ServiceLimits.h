#pragma once

#include <cstdint>

// The limits a running service holds every client to. Each has a `serve` option of its own;
// the defaults suit one machine serving a few thousand people.
struct ServiceLimits
{
    // An upload's file part (--max-upload).
    uint64_t maxUploadBytes = uint64_t(2) << 30;
    // A JSON or form body.
    uint64_t maxSmallBodyBytes = 64 * 1024;
    // A clip's name and a pack's title, in characters.
    int maxNameCharacters = 200;
    int maxPackClips = 500;
    // How long a sign-in code stays usable (--code-lifetime).
    int deviceCodeSeconds = 600;
    // How long a browser stays signed in on the account page.
    int webSessionSeconds = 14 * 24 * 3600;
    // Requests per minute, each a bucket that refills evenly over the minute: the sign-in poll
    // and the sign-in start by address (--poll-rate), every call made with one token
    // (--token-rate), and password attempts on the pages by address.
    int devicePollsPerMinute = 60;
    int deviceStartsPerMinute = 20;
    int tokenRequestsPerMinute = 300;
    int passwordAttemptsPerMinute = 10;
    // Connections served at once (--threads); more wait their turn.
    int threads = 64;
    // A client that sends or takes nothing for this long is dropped.
    int ioTimeoutSeconds = 60;
};
