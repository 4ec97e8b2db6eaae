#pragma once

#include <cstdint>

// The limits a running service holds every client to. The defaults suit one machine serving a
// few thousand people; those an operator may want to move have a `serve` option each.
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
    // and the device page by client (--poll-rate), the sign-in start by client, every call
    // made with one token (--token-rate), and password attempts by client and by account.
    // Password attempts per account are more than per client: someone guessing at an account
    // from many addresses also keeps its owner waiting, for a minute after they stop.
    int devicePollsPerMinute = 60;
    int deviceStartsPerMinute = 20;
    int tokenRequestsPerMinute = 300;
    int passwordAttemptsPerMinute = 10;
    int passwordAttemptsPerAccountPerMinute = 20;
    // Requests served at once (--threads); more wait their turn, and one client never has
    // more than a quarter of them.
    int threads = 64;
    // Connections open at once, in all (--max-connections) and from one address
    // (--connections-per-address; trusted proxies are exempt).
    int maxConnections = 1000;
    int connectionsPerAddress = 32;
    // The TLS handshake (--handshake-timeout) and the request head with a small body
    // (--head-timeout), each from its start; the quiet between two requests.
    int handshakeSeconds = 10;
    int headSeconds = 10;
    int keepAliveSeconds = 5;
    // A client that sends or takes nothing of an upload or an answer for this long is dropped.
    int ioTimeoutSeconds = 60;
    // Request heads: header lines and bytes (431 above either).
    int maxHeaderCount = 100;
    int maxHeaderBytes = 16 * 1024;
    // Uploaded video: the largest picture (either way round), and the memory the check and the
    // poster frame may take beyond what their process starts with (--poster-memory; an
    // 8K picture needs about 128 MiB).
    int maxVideoWidth = 7680;
    int maxVideoHeight = 4320;
    uint64_t posterMemoryBytes = uint64_t(512) << 20;
};
