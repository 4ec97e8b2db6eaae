#pragma once

#include <QString>

// The two sound cues: a short bright one when a save begins, a low one when it fails. They are
// synthesized once per process into WAV files in the temporary folder and played from there, so
// no sound resources ship with the program.
//
// Everything here belongs to the main thread: the cached files and the kept players are plain
// process-wide values, and a QSoundEffect plays only on a thread with a running event loop. A
// call from another thread is handed over to the main thread.
namespace ClipSound {

void playClip();
void playError();

// The cue's WAV file ("vantrel-<UUID>.wav" in the temporary folder), written on first use and
// reused for the rest of the process. A file that cannot be written plays as silence.
QString clipCuePath();
QString errorCuePath();

} // namespace ClipSound
