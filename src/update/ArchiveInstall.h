#pragma once

#include <QString>

class QTextStream;

// `vantrel --install ARCHIVE [--signature FILE]`: installs a release archive for this user, as
// scripts/install does on a machine without Vantrel. The signature (ARCHIVE.sig unless named) is
// checked against this program's release key before the archive is opened; the copy goes to
// InstalledCopy::defaultRoot(), replacing one already there, and is then linked into the
// desktop. Returns the process's exit status; what happened is written to `out` and `err`.
namespace ArchiveInstall {

int run(const QString &archive, const QString &signaturePath, QTextStream &out, QTextStream &err);

} // namespace ArchiveInstall
