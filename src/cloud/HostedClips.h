#pragma once

#include <QMap>
#include <QString>
#include <QUrl>

// Which local clip became which hosted clip: file name (with extension) to the service's id,
// kept in the settings store under "hostedClipIds". Main thread only, so one read-modify-write
// never interleaves with another.
namespace HostedClips {

// Records that the file `local` was uploaded as `id`, replacing an earlier id for the same name.
void remember(const QUrl &local, const QString &id);

// Drops the record of the file `local`, once its hosted clip is gone.
void forget(const QUrl &local);

// The whole record; a stored value that is not a map of names to ids reads as empty, and an
// entry whose id is not text is left out.
QMap<QString, QString> all();

} // namespace HostedClips
