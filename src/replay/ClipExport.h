#pragma once

#include "replay/ReplayBuffer.h"
#include "replay/WrittenFile.h"

#include <QFuture>
#include <QString>

#include <chrono>
#include <functional>

class EncodedAudioHistory;
class SerialQueue;

// Saving a clip: the snapshot of the replay buffer, started at its first key frame and moved to
// time zero, written into a temporary MP4 on the process-wide export queue (video passed through,
// audio encoded to AAC, or taken from the session file's AAC when that covers the clip) and moved
// into the recordings folder once complete.
namespace ClipExport {

struct Options
{
    // The length to save, in seconds: the clip opens on the last key frame at least this long
    // before the snapshot's last frame (or on its first key frame, when it holds less, and the
    // answer says so). 0: everything the snapshot holds.
    double lengthSeconds = 0;
    // How long the writer may take before the caller is told "Timed out saving the clip.".
    std::chrono::milliseconds timeLimit {60'000};
    // Runs on the export queue when the export's last callback is over (its writer finished or
    // was given up), after the answer. For callers that must know nothing is left running.
    std::function<void()> onWriterDone;
    // The AAC already made of the system audio and the microphone while armed. A track whose
    // history covers the clip is copied from it rather than encoded again.
    std::shared_ptr<const EncodedAudioHistory> audioHistory;
    std::shared_ptr<const EncodedAudioHistory> micHistory;
    // The encoder's counts since the capture started (frames handed to it, frames it returned),
    // for the log line.
    int64_t framesIn = 0;
    int64_t framesEncoded = 0;
};

// Writes the clip of `snapshot` and answers with its path and what it lacks of the snapshot, or
// fails with a RecorderError whose text the user sees. The file is written on the export queue,
// so capture goes on appending to the buffer meanwhile. The future completes exactly once.
QFuture<WrittenFile> exportClip(const ReplayBuffer::Snapshot &snapshot, Options options = {});

// "Clip yyyy-MM-dd HH-mm-ss XXXXXX.mp4" in the recordings folder: local time and the first six
// characters of a new UUID, so two clips in the same second still differ.
QString newClipPath();

// The process-wide serial queue every step of writing a clip runs on.
SerialQueue &exportQueue();

} // namespace ClipExport
