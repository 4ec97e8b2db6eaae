#include "app/StatusTexts.h"

#include "input/ClipHotkey.h"
#include "media/RecorderError.h"

namespace StatusTexts {

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

} // namespace StatusTexts
