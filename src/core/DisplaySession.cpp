#include "core/DisplaySession.h"

#include "core/DesktopPortal.h"

namespace DisplaySession {

bool isForced()
{
    return !qEnvironmentVariableIsEmpty("VANTREL_CAPTURE") ||
        !qEnvironmentVariableIsEmpty("VANTREL_SCREEN_BACKEND");
}

QString withoutScreenCastText()
{
    return QStringLiteral(
        "This Wayland session has no screen-sharing portal. Install "
        "xdg-desktop-portal with your desktop's portal (xdg-desktop-portal-gnome, "
        "-kde or -wlr), log in again, then Arm again.");
}

bool isWayland()
{
    return !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") ||
        qEnvironmentVariable("XDG_SESSION_TYPE") == QLatin1String("wayland");
}

Choice chooseCapture()
{
    // VANTREL_SCREEN_BACKEND is the older name of the same switch.
    QString variable = QStringLiteral("VANTREL_CAPTURE");
    if (qEnvironmentVariableIsEmpty("VANTREL_CAPTURE") &&
        !qEnvironmentVariableIsEmpty("VANTREL_SCREEN_BACKEND"))
        variable = QStringLiteral("VANTREL_SCREEN_BACKEND");
    const QString forced = qEnvironmentVariable(variable.toLatin1().constData());
    const QString setting = variable + QLatin1Char('=') + forced;
    if (forced == QLatin1String("x11"))
        return {Capture::x11, setting};
    if (forced == QLatin1String("wayland"))
        return {Capture::wayland, setting};
    if (!forced.isEmpty())
        return {Capture::none,
                setting + QStringLiteral(" names no capture backend (x11 or wayland)")};
    if (isWayland()) {
        const std::optional<uint> version =
            DesktopPortal::interfaceVersion(QStringLiteral("org.freedesktop.portal.ScreenCast"));
        if (version)
            return {Capture::wayland,
                    QStringLiteral("a Wayland session whose desktop portal offers ScreenCast v%1")
                        .arg(*version)};
        return {Capture::none,
                QStringLiteral("a Wayland session without the desktop portal's ScreenCast%1")
                    .arg(qEnvironmentVariableIsEmpty("DISPLAY")
                             ? QString()
                             : QStringLiteral(" (DISPLAY is XWayland, which shows only X11 "
                                              "programs)"))};
    }
    if (!qEnvironmentVariableIsEmpty("DISPLAY"))
        return {Capture::x11,
                QStringLiteral("an X11 session (DISPLAY=%1)").arg(qEnvironmentVariable("DISPLAY"))};
    return {Capture::none,
            QStringLiteral("no display: neither DISPLAY nor WAYLAND_DISPLAY is set")};
}

} // namespace DisplaySession
