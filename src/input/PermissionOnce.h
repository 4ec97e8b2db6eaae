#pragma once

// Makes sure each access notice is shown at most once per user, remembered by three flags in the
// preferences store ("noticeShownScreenCast", "noticeShownKeyboards", "noticeShownX11Keys"),
// which only ever go from false to true. The notices go out through PermissionNotifier. Called on
// the main thread.
namespace PermissionOnce {

// At launch: sets the flag of every access that is already there, so that access the user gave
// earlier never leads to a notice later.
void rememberExistingAccess();

bool screenCastNoticeShown();

// Nothing when access is there (returns false). The first time without access: the notice, and
// returns whether access is there now. Afterwards: the help text, and returns false.
bool noticeScreenCastIfNeeded();

// The one-time notices for the clip key's two access rights (XInput2 for other X11 programs, the
// keyboards for every program); nothing when access is there or the notice was shown before.
void noticeX11KeysIfNeeded();
void noticeKeyboardsIfNeeded();

// The X11 keys, then the keyboards; called whenever the hotkey manager is armed.
void noticeClipKeyIfNeeded();

} // namespace PermissionOnce
