#pragma once

#include "media/MediaTime.h"

#include <QFuture>
#include <QString>

#include <cstdint>
#include <vector>

// A frame-accurate cut of a clip, written as a copy beside it without encoding the clip again:
// the frames from the cut's first frame to the clip's next key frame are encoded anew with the
// capture's own settings, everything after them is copied as it is, and the sound is copied and
// cut to the sample by the file's edit list. The original is never touched; the copy is written
// into a temporary file and moved in under a name no other file has.
//
// How the two parts join. The re-encoded start is a stream of its own, opening on a key frame
// (an IDR) of its own; the copied part opens on the clip's next key frame, also an IDR. The start
// is encoded with its SPS and PPS numbered apart from the clip's (x264's sps-id: the first id the
// clip's decoder configuration does not use), and the copy's avcC holds both pairs: the clip's
// that the copied frames refer to, and the start's. Every slice names its PPS, so each part finds
// its own parameter sets, nothing is rewritten in the copied frames, and a decoder switches from
// one SPS to the other at the IDR where the copied part begins, where H.264 allows it. Times
// are the clip's own, less the first frame's: frame durations (a still screen's long frames too)
// stay as they were, and the sound's timeline is moved by the same amount, so it stays in step.
namespace ClipTrim {

struct Request
{
    QString source;
    // The cut keeps the frames shown from `in` (the frame showing then is the first) up to
    // `out`, which is the end of the cut: the last frame kept is the one showing just before.
    // Both are times from the start of the clip.
    MediaTime in;
    MediaTime out;
};

struct Trimmed
{
    QString path; // the copy, beside the clip
    MediaTime duration; // of its video: from its first frame to the end of its last
    int64_t frames = 0;
    int64_t reencoded = 0; // frames encoded anew at its start; 0 when it starts on a key frame
    bool madeInAdvance = false; // those frames came from prepare()
};

// A clip's frames, for a trim view to snap to and step through.
struct Frames
{
    std::vector<MediaTime> starts; // when each frame starts showing, in order
    std::vector<bool> keys; // which of them are key frames
    MediaTime end; // when the last frame stops showing
};

// Reads the frames of `source` from its index (nothing is decoded). Throws
// RecorderError::writerFailed with the sentence the user reads when the clip cannot be trimmed.
Frames frames(const QString &source);

// Makes the re-encoded start of a cut from `in` on the trim queue, ahead of the cut itself: a
// trim view calls it when the user sets the start, and the trim of the same clip from the same
// frame then only copies, so the copy is there a moment after "Save trimmed copy" whatever the
// start. The latest call replaces what an earlier one made; a clip changed since is made again.
// The future completes when it is made (or could not be: the trim then says why).
QFuture<void> prepare(const QString &source, MediaTime in);

// Writes the trimmed copy on the trim queue (one at a time, at a lower priority than the
// capture) and answers with it, or fails with a RecorderError whose sentence the user reads:
// bad in and out points, a file that cannot be read or is not a clip Vantrel can trim, a copy
// that cannot be written. Nothing is left behind on failure.
QFuture<Trimmed> trim(Request request);

// The same on the calling thread, for tests and benchmarks. Throws RecorderError.
Trimmed write(const Request &request);

// Where the copy of `source` goes first: "NAME trimmed.mp4" beside it ("NAME trimmed 2.mp4" and so
// on when that is taken).
QString copyPath(const QString &source, int attempt = 1);

} // namespace ClipTrim
