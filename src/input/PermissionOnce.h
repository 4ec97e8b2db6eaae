#pragma once

// Makes sure each access notice is shown at most once per user, remembered by three flags in the
// preferences store ("promptedScreenRecording", "promptedInputMonitoring",
// "promptedAccessibility"), which only ever go from false to true. The notices go out through
// PermissionNotifier. Called on the main thread.
namespace PermissionOnce {

// At launch: sets the flag of every access that is already there, so that access the user gave
// earlier never leads to a notice later.
void rememberExistingPrompts();

bool didPromptScreenRecording();

// Nothing when access is there (returns false). The first time without access: the notice, and
// returns whether access is there now. Afterwards: the help text (where other systems open their
// settings), and returns false.
bool promptScreenRecordingIfNeeded();

// The one-time notices for the clip key's two access rights; nothing when access is there or the
// notice was shown before.
void promptAccessibilityIfNeeded();
void promptInputMonitoringIfNeeded();

// Accessibility, then input monitoring; called whenever the hotkey manager is armed.
void promptHotkeysIfNeeded();

} // namespace PermissionOnce
