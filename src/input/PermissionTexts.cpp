#include "input/PermissionTexts.h"

namespace PermissionTexts {

namespace {

const QString kInputGroupHow = QStringLiteral(
    "add yourself to the \"input\" group (in a terminal: sudo usermod -aG input $USER), then log "
    "out and back in. Vantrel only listens: it never blocks or changes a key. Any program you run "
    "can then read your keyboards too, so do this only on a computer you trust.");

} // namespace

PermissionNotice screenCast(bool isFirstPrompt)
{
    return {PermissionNotice::Kind::screenCast, isFirstPrompt,
            QStringLiteral("Screen recording needs the desktop portal"),
            QStringLiteral(
                "This session runs on Wayland, where programs record the screen through the "
                "desktop portal, and this desktop has none that can share the screen. Install "
                "xdg-desktop-portal and your desktop's own portal (xdg-desktop-portal-gnome, "
                "xdg-desktop-portal-kde or xdg-desktop-portal-wlr), log in again and arm again.")};
}

PermissionNotice keyboards(bool isFirstPrompt, bool x11KeysWork)
{
    const QString meanwhile = x11KeysWork
        ? QStringLiteral("Until then the clip key works in X11 applications, but not in Wayland "
                         "ones.")
        : QStringLiteral("Until then the clip key works only while a Vantrel window is in front.");
    return {PermissionNotice::Kind::keyboards, isFirstPrompt,
            QStringLiteral("Let Vantrel read your keyboards"),
            QStringLiteral("Vantrel sees the clip key in every application when it may read your "
                           "keyboards. To allow it, ") +
                kInputGroupHow + QLatin1Char(' ') + meanwhile};
}

PermissionNotice x11Keys(bool isFirstPrompt, bool keyboardsReadable)
{
    const QString meanwhile = keyboardsReadable
        ? QStringLiteral("The clip key still works everywhere, because Vantrel can read your "
                         "keyboards.")
        : QStringLiteral("To have the clip key work everywhere without X11, ") + kInputGroupHow;
    return {PermissionNotice::Kind::x11Keys, isFirstPrompt,
            QStringLiteral("No X server for the clip key"),
            QStringLiteral("Vantrel could not reach an X server with the XInput2 extension, so it "
                           "cannot watch keys pressed in other X11 applications. ") +
                meanwhile};
}

PermissionNotice hotkeyHelp(bool keyboardsReadable, bool x11KeysWork)
{
    QString text;
    if (keyboardsReadable) {
        text = QStringLiteral("Vantrel reads your keyboards, so the clip key works in every "
                              "application.");
    } else {
        text = QStringLiteral("For the clip key to work in every application, Wayland ones "
                              "included, Vantrel needs to read your keyboards: ") +
            kInputGroupHow;
        text += x11KeysWork
            ? QStringLiteral(" Without it the clip key works in X11 applications and in Vantrel's "
                             "own window.")
            : QStringLiteral(" Without it, and without an X11 session, the clip key works only "
                             "while a Vantrel window is in front.");
    }
    return {PermissionNotice::Kind::keyboards, false,
            QStringLiteral("Clip key in other applications"), text};
}

QString withoutDesktopShortcuts(const QString &currentDesktop)
{
    // XDG_CURRENT_DESKTOP is a list ("ubuntu:GNOME").
    if (currentDesktop.split(QLatin1Char(':'))
            .contains(QStringLiteral("GNOME"), Qt::CaseInsensitive))
        return QStringLiteral("GNOME gives apps shortcuts of their own only from version 48: add "
                              "one in Settings › Keyboard › View and Customize Shortcuts › Custom "
                              "Shortcuts with the command vantrel vantrel://clip, or add yourself "
                              "to the input group.");
    return QStringLiteral("This desktop gives apps no shortcuts of their own: bind a key to the "
                          "command vantrel vantrel://clip in its keyboard settings, or add "
                          "yourself to the input group.");
}

} // namespace PermissionTexts
