#pragma once

#include "replay/WrittenFile.h"

#include <QString>

#include <exception>

// The status line's sentences: arming, saving and what the capture pipeline reports. Everything the
// shell says about recording is worded here, so that a new sentence has one place to go.
class HotkeyManager;

namespace StatusTexts {

// What would make the clip key work in other applications when it works only in our window.
enum class KeyRemedy {
    inputGroup, // read the keyboards
    allowShortcut, // the desktop offers a global shortcut that is not bound
    desktopKey, // the desktop has no global shortcuts: a key of its own that runs our link
};
KeyRemedy keyRemedy(const HotkeyManager &hotkeys);

// Armed: what the clip key does, where it works and, when only in our window, what would make it
// work everywhere. `seconds` is the clip length.
QString armed(const QString &key, int seconds, bool worksEverywhere, KeyRemedy remedy);
// Not armed.
QString idle(const QString &key, int seconds);

QString arming();
QString saving();
// The capture ended by itself and recording goes on by itself.
QString restarting();
QString resumingAfterWake();

// What the user reads for a failed operation: a RecorderError's sentence, with the clip key's
// name where it tells the user to press it; any other error's message.
QString forError(const std::exception &error);

// A saved clip: "Saved <name>.", or, when the writer would not take all of it, "<name> is
// incomplete: 12 of 600 frames could not be written.", or, when the replay held less than the
// length asked for, "Saved <name>: the replay held only 42 s of the 120 s asked for.".
QString forSavedClip(const WrittenFile &clip);

// A stopped recording: "Saved <name>" for a kept session file (or that it is incomplete, as for a
// clip), why a file that was to be kept was lost, or empty when there was none to keep.
QString forSession(const SessionOutcome &session);

// The capture losing frames for more than a moment: "Recording at 47 frames a second: this
// computer cannot keep up with 1080p at 60. Choose a smoother quality in Settings."
QString forFallingBehind(double heldFps, int fps, int height);

// What gives the clip key every application where it only works in our window. On X11 the key
// already reaches every program through the X server; under Wayland it needs the desktop's
// global shortcut or read access to the keyboards, which the "input" group gives; a desktop
// without global shortcuts can run our link on a key of its own.
QString keyAccessHint(KeyRemedy remedy = KeyRemedy::inputGroup);

} // namespace StatusTexts
