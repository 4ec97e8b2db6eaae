#pragma once

#include <QString>

// The program's two log sinks. `system` is the "system log": one line "Vantrel: <message>" on
// standard error, where the journal picks it up for a session-started program. `appendLine` adds
// one dated line to a log file. Both are safe from any thread: each line leaves in a single
// write() call, and the file is opened with O_APPEND, so concurrent lines never tear or
// interleave.
namespace Log {

void system(const QString &message);

// Appends "<UTC date> <message>\n" to the file at `path`, creating it when missing. A file that
// cannot be opened or written loses the line; the first such failure is reported once on
// standard error.
void appendLine(const QString &path, const QString &message);

// "2026-11-16 20:14:44 +0000": the date layout of every log file line, in UTC.
QString dateText();

// Reports `what` once per process on standard error, for failures that would otherwise repeat on
// every line (an unwritable log, a recordings folder that cannot be made).
void reportOnce(const char *key, const QString &what);

} // namespace Log
