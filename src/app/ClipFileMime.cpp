#include "app/ClipFileMime.h"

#include <QFile>
#include <QMimeDatabase>

namespace {

QString contentTypeOf(const QString &path)
{
    const QString type = QMimeDatabase().mimeTypeForFile(path).name();
    // Offering the catch-all type would make programs that take any file paste raw bytes
    // instead of the file.
    return type == QLatin1String("application/octet-stream") ? QString() : type;
}

} // namespace

ClipFileMime::ClipFileMime(const QUrl &url)
    : m_path(url.toLocalFile())
    , m_contentType(contentTypeOf(m_path))
{
    setUrls({url});
    setData(QStringLiteral("x-special/gnome-copied-files"), "copy\n" + url.toEncoded());
    setText(m_path);
}

bool ClipFileMime::hasFormat(const QString &mimeType) const
{
    return (!m_contentType.isEmpty() && mimeType == m_contentType) ||
        QMimeData::hasFormat(mimeType);
}

QStringList ClipFileMime::formats() const
{
    QStringList all = QMimeData::formats();
    if (!m_contentType.isEmpty())
        all.push_back(m_contentType);
    return all;
}

QVariant ClipFileMime::retrieveData(const QString &mimeType, QMetaType type) const
{
    if (m_contentType.isEmpty() || mimeType != m_contentType)
        return QMimeData::retrieveData(mimeType, type);
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}
