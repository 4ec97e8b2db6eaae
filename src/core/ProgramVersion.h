#pragma once

#include <QString>

// The version this copy of the program reports and compares with the newest release.
//
// A copy installed from a release archive carries a VERSION file beside its bin/ folder, written
// when the archive was packaged; that text is the copy's version. Any other copy (a build tree, a
// distribution package) reports the version it was built as. Safe before the application object
// exists (it finds the executable through /proc), so `--version` answers the same.
namespace ProgramVersion {

QString current();

// The version the executable was built as.
QString built();

// The version named by the VERSION file at `path` (a copy's, or an unpacked release's); empty
// when there is none or it is not one short line.
QString readVersionFile(const QString &path);

} // namespace ProgramVersion
