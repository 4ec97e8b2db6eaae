#include "core/Preferences.h"

namespace Preferences {

std::unique_ptr<QSettings> open()
{
    return std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope,
                                       QStringLiteral("quillfen"), QStringLiteral("Vantrel"));
}

} // namespace Preferences
