#pragma once

// Brings a settings store written by an earlier version up to this one, once (the store's
// "settingsVersion" says how far it is). Nothing a user set is lost: settings that were renamed
// keep their values under the new names. Run at launch before anything reads the settings.
//
// Version 2: the access notices' flags take their Linux names ("promptedScreenRecording" →
// "noticeShownScreenCast", "promptedInputMonitoring" → "noticeShownKeyboards",
// "promptedAccessibility" → "noticeShownX11Keys"); the relaunch flags go
// ("didRelaunchForScreen", and "autoStartClipping", whose pending arming becomes the wish to keep
// recording); and the autostart entry, which earlier versions wrote at every launch whatever the
// switch said, is made to follow the "Start recording when I log in" switch.
namespace SettingsMigration {

constexpr int currentVersion = 2;

void run();

} // namespace SettingsMigration
