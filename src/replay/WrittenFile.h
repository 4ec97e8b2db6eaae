#pragma once

#include <QString>

#include <cstdint>
#include <optional>

// What a written file lacks of what it was given: the frames and packets the writer would not
// take (a track that could not be added at all loses all of its packets).
struct Shortfall
{
    int64_t framesLost = 0;
    int64_t frames = 0;
    int64_t audioLost = 0; // system audio
    int64_t audioPackets = 0;
    int64_t micLost = 0;
    int64_t micPackets = 0;

    bool isComplete() const { return framesLost == 0 && audioLost == 0 && micLost == 0; }
    // "12 of 600 frames and 40 of 1500 system audio packets"; empty when complete.
    QString text() const;

    friend bool operator==(const Shortfall &, const Shortfall &) = default;
};

// A file the pipeline wrote into the recordings folder, and what it lacks.
struct WrittenFile
{
    QString path;
    Shortfall shortfall;
    // For a clip: the length asked for, and the length of the video written (from its first
    // frame to the end of its last), in seconds; both 0 for other files.
    double askedSeconds = 0;
    double seconds = 0;

    // The replay held less than the length asked for (a length longer than it keeps, or a save
    // soon after arming): the clip is all it held. Half a second of slack, since clips start on
    // a key frame.
    bool isShorterThanAsked() const { return askedSeconds > 0 && seconds + 0.5 < askedSeconds; }

    friend bool operator==(const WrittenFile &, const WrittenFile &) = default;
};

// How a session recording ended: the file kept, if any, and when a file that was to be kept is
// not, why (the writer failed, say); no reason when there was simply nothing to keep.
struct SessionOutcome
{
    std::optional<WrittenFile> file;
    QString failure;

    friend bool operator==(const SessionOutcome &, const SessionOutcome &) = default;
};
