#pragma once

#include <QMap>
#include <QString>
#include <QUrl>

// The link each shared clip got, kept in the settings store under "clipLinks" (file name to the
// link's text), so that a clip shared before a restart still offers "Copy link". The service's id
// of each clip is kept apart (HostedClips), for taking it down. Main thread only.
namespace ClipLinks {

void remember(const QUrl &clip, const QString &link);
void forget(const QUrl &clip);

// The links of the clips in `folder` that still exist, by the clips' file URLs. A stored value
// that is not a map of names to text reads as empty, and a name that is not a plain file name
// (a path, "..") is left out.
QMap<QUrl, QString> inFolder(const QString &folder);

} // namespace ClipLinks
