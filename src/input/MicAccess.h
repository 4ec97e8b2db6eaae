#pragma once

// Microphone access. Linux has no per-application microphone consent: the audio server lets
// every client of the user record, so there is never anything to ask.
namespace MicAccess {

// Returns at once; kept so that arming reads the same on every system.
void requestIfNeeded();

} // namespace MicAccess
