#include "app/StatusTexts.h"

#include "input/ClipHotkey.h"
#include "input/HotkeyManager.h"
#include "input/PermissionTexts.h"
#include "media/RecorderError.h"

#include <QFileInfo>

#include <cmath>

namespace StatusTexts {

namespace {

QString withoutDesktopShortcuts()
{
    return PermissionTexts::withoutDesktopShortcuts(qEnvironmentVariable("XDG_CURRENT_DESKTOP"));
}

} // namespace

KeyRemedy keyRemedy(const HotkeyManager &hotkeys)
{
    if (hotkeys.desktopShortcutDeclined())
        return KeyRemedy::allowShortcut;
    return hotkeys.desktopLacksShortcuts() ? KeyRemedy::desktopKey : KeyRemedy::inputGroup;
}

QString armed(const QString &key, int seconds, bool worksEverywhere, KeyRemedy remedy)
{
    if (worksEverywhere)
        return QStringLiteral("Recording. %1 saves the last %2 seconds from any app.")
            .arg(key)
            .arg(seconds);
    QString what;
    switch (remedy) {
    case KeyRemedy::allowShortcut:
        what = QStringLiteral("Allow Vantrel's shortcut in your desktop's settings.");
        break;
    case KeyRemedy::desktopKey:
        what = withoutDesktopShortcuts();
        break;
    case KeyRemedy::inputGroup:
        what = QStringLiteral("Add yourself to the input group to use it everywhere.");
        break;
    }
    return QStringLiteral("Recording, but %1 only works in this window. %2").arg(key, what);
}

QString idle(const QString &key, int seconds)
{
    return QStringLiteral("Arm recording, then press %1 to save the last %2 seconds.")
        .arg(key)
        .arg(seconds);
}

QString arming()
{
    return QStringLiteral("Arming recording…");
}

QString saving()
{
    return QStringLiteral("Saving clip…");
}

QString restarting()
{
    return QStringLiteral("Capture dropped. Restarting recording…");
}

QString resumingAfterWake()
{
    return QStringLiteral("Computer woke up. Resuming recording…");
}

QString forError(const std::exception &error)
{
    const auto *recorder = dynamic_cast<const RecorderError *>(&error);
    if (!recorder)
        return QString::fromUtf8(error.what());
    switch (recorder->kind()) {
    case RecorderError::Kind::notArmed:
        return QStringLiteral("Arm Instant Replay first, then press %1 to save a clip.")
            .arg(ClipHotkey::displayName());
    case RecorderError::Kind::stillStarting:
        return QStringLiteral("Still getting started. Wait a second, then press %1.")
            .arg(ClipHotkey::displayName());
    default:
        return recorder->text();
    }
}

namespace {

QString incomplete(const WrittenFile &file)
{
    return QStringLiteral("%1 is incomplete: %2 could not be written.")
        .arg(QFileInfo(file.path).fileName(), file.shortfall.text());
}

} // namespace

QString forSavedClip(const WrittenFile &clip)
{
    if (!clip.shortfall.isComplete())
        return incomplete(clip);
    // A length longer than the replay keeps (or a save soon after arming) is still a clip, but
    // the user asked for more and should know why there is less.
    if (clip.isShorterThanAsked())
        return QStringLiteral("Saved %1: the replay held only %2 s of the %3 s asked for.")
            .arg(QFileInfo(clip.path).fileName())
            .arg(std::lround(clip.seconds))
            .arg(std::lround(clip.askedSeconds));
    return QStringLiteral("Saved %1.").arg(QFileInfo(clip.path).fileName());
}

QString forSession(const SessionOutcome &session)
{
    if (session.file) {
        if (!session.file->shortfall.isComplete())
            return incomplete(*session.file);
        return QStringLiteral("Saved ") + QFileInfo(session.file->path).fileName();
    }
    if (!session.failure.isEmpty())
        return QStringLiteral("The session recording could not be saved: %1").arg(session.failure);
    return {};
}

QString keyAccessHint(KeyRemedy remedy)
{
    if (remedy == KeyRemedy::desktopKey)
        return withoutDesktopShortcuts();
    return QStringLiteral("Under Wayland, Vantrel needs to read the keyboard: add yourself to the "
                          "input group, then log in again.");
}

QString forFallingBehind(double heldFps, int fps, int height)
{
    return QStringLiteral("Recording at %1 frames a second: this computer cannot keep up with %2p "
                          "at %3. Choose a smoother quality in Settings.")
        .arg(qRound(heldFps))
        .arg(height)
        .arg(fps);
}

} // namespace StatusTexts
