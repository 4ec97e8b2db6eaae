#include "cloud/HostedClips.h"

#include "core/Preferences.h"

#include <QFileInfo>
#include <QVariantMap>

namespace HostedClips {

namespace {

const QString key = QStringLiteral("hostedClipIds");

void store(const QMap<QString, QString> &ids)
{
    QVariantMap map;
    for (auto it = ids.cbegin(); it != ids.cend(); ++it)
        map.insert(it.key(), it.value());
    Preferences::open()->setValue(key, map);
}

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
    QMap<QString, QString> ids = all();
    ids.insert(QFileInfo(local.toLocalFile()).fileName(), id);
    store(ids);
}

void forget(const QUrl &local)
{
    QMap<QString, QString> ids = all();
    if (ids.remove(QFileInfo(local.toLocalFile()).fileName()) > 0)
        store(ids);
}

} // namespace HostedClips
