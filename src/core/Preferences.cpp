#include "core/Preferences.h"

#include <limits>

namespace Preferences {

std::unique_ptr<QSettings> open()
{
    return std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope,
                                       QStringLiteral("quillfen"), QStringLiteral("Vantrel"));
}

std::optional<uint32_t> storedUint32(const QSettings &store, const QString &key)
{
    if (!store.contains(key))
        return std::nullopt;
    bool ok = false;
    const qlonglong value = store.value(key).toLongLong(&ok);
    if (!ok || value < 0 || value > qlonglong(std::numeric_limits<uint32_t>::max()))
        return std::nullopt;
    return uint32_t(value);
}

} // namespace Preferences
