#pragma once

#include <QString>

// Moving a finished recording into the recordings folder without ever showing a partial file
// under its final name.
namespace FileMove {

// Moves `source` to `destination`, replacing any file there. Within one file system this is a
// rename. Across file systems (a temporary folder on tmpfs is common) the file is copied to a
// hidden name beside `destination` and renamed into place, and the source is removed; a failed
// copy removes its partial copy and leaves the source alone. Returns an empty string on success,
// otherwise what went wrong, in a sentence for the user.
QString moveReplacing(const QString &source, const QString &destination);

// The same, except that a file already at `destination` is never replaced: then nothing moves,
// `*taken` is set and the answer is a sentence saying so. (Across file systems the copy goes to
// its hidden name first and is linked into place.)
QString moveWithoutReplacing(const QString &source, const QString &destination, bool *taken);

} // namespace FileMove
