#include "app/ClipLinks.h"

#include "core/Preferences.h"

#include <QFileInfo>
#include <QVariantMap>

namespace ClipLinks {

namespace {

const QString key = QStringLiteral("clipLinks");

QVariantMap stored()
{
    const QVariant value = Preferences::open()->value(key);
    return value.typeId() == QMetaType::QVariantMap ? value.toMap() : QVariantMap();
}

QString nameOf(const QUrl &clip)
{
    return QFileInfo(clip.toLocalFile()).fileName();
}

} // namespace

void remember(const QUrl &clip, const QString &link)
{
    QVariantMap links = stored();
    links.insert(nameOf(clip), link);
    Preferences::open()->setValue(key, links);
}

void forget(const QUrl &clip)
{
    QVariantMap links = stored();
    if (links.remove(nameOf(clip)) > 0)
        Preferences::open()->setValue(key, links);
}

QMap<QUrl, QString> inFolder(const QString &folder)
{
    QMap<QUrl, QString> links;
    const QVariantMap map = stored();
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        const QString &name = it.key();
        if (it.value().typeId() != QMetaType::QString || name.isEmpty() ||
            name.contains(QLatin1Char('/')) || name == QLatin1String("..") ||
            name == QLatin1String("."))
            continue;
        const QString path = folder + QLatin1Char('/') + name;
        if (QFileInfo(path).isFile())
            links.insert(QUrl::fromLocalFile(path), it.value().toString());
    }
    return links;
}

} // namespace ClipLinks
