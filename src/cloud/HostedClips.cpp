#include "cloud/HostedClips.h"

#include "core/Preferences.h"

#include <QFileInfo>
#include <QVariantMap>

namespace HostedClips {

namespace {

const QString key = QStringLiteral("hostedClipIds");

} // namespace

QMap<QString, QString> all()
{
    const QVariant stored = Preferences::open()->value(key);
    QMap<QString, QString> ids;
    if (stored.typeId() != QMetaType::QVariantMap)
        return ids;
    const QVariantMap map = stored.toMap();
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        if (it.value().typeId() == QMetaType::QString)
            ids.insert(it.key(), it.value().toString());
    }
    return ids;
}

void remember(const QUrl &local, const QString &id)
{
    QVariantMap map;
    const QMap<QString, QString> ids = all();
    for (auto it = ids.cbegin(); it != ids.cend(); ++it)
        map.insert(it.key(), it.value());
    map.insert(QFileInfo(local.toLocalFile()).fileName(), id);
    Preferences::open()->setValue(key, map);
}

} // namespace HostedClips
