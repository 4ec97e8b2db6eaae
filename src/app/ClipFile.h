#pragma once

#include <QDateTime>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QUrl>

// One clip of the library. Its file URL is its identity.
struct ClipFile
{
    QUrl id;
    QString name; // file name with extension
    QDateTime date; // modification date
    QString size; // "12.4 MB"

    friend bool operator==(const ClipFile &, const ClipFile &) = default;
};

Q_DECLARE_METATYPE(ClipFile)

// Byte counts the way file sizes are shown to the user: decimal units, "812 KB", "12.4 MB",
// "1.23 GB".
QString formatFileSize(qint64 bytes);
