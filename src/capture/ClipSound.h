#pragma once

#include <QString>

#include <cstdint>
#include <vector>

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

// The cue's WAV file, written on first use and reused for the rest of the process.
QString clipURL();
QString errorURL();

// The cues' 16-bit samples (mono, 44100 per second).
std::vector<int16_t> clipSamples();
std::vector<int16_t> errorSamples();

// Writes the samples as a mono 16-bit 44.1 kHz WAV file named "vantrel-<UUID>.wav" in the
// temporary folder and returns its path. A failed write is ignored: the path is returned all
// the same, and playing it then does nothing.
QString writeWAV(const std::vector<int16_t> &samples);

} // namespace ClipSound
