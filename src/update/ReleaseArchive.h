#pragma once

#include <QString>

// Reading a release archive (a gzip-compressed tar) into a folder, and finding the program in it.
namespace ReleaseArchive {

// Unpacks `archive` into the existing, empty folder `into`. Only regular files and folders are
// accepted, every name must stay inside `into` (no absolute names, no "..") and the whole must
// stay under a size no release reaches; links of any kind are refused, since one pointing out of
// the folder would let a later entry write anywhere. Throws UpdateError ("Couldn’t open the update
// archive.") on a refused entry or a damaged archive, leaving whatever was written in `into` for
// the caller to remove.
void unpack(const QString &archive, const QString &into);

// The first top-level folder of `unpacked` (by name) holding an executable bin/vantrel. Throws
// UpdateError ("Update archive has no Vantrel inside.") when there is none.
QString findApp(const QString &unpacked);

} // namespace ReleaseArchive
