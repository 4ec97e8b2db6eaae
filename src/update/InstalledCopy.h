#pragma once

#include <QString>

#include <functional>

// The copy of Vantrel installed from a release archive: a folder (~/.local/opt/Vantrel unless
// VANTREL_PREFIX names another) holding bin/vantrel, share/ and a VERSION file.
//
// Replacing it never leaves it half-written: a new copy is unpacked into a staging folder beside
// it, on the same file system, and the two folders are exchanged in one rename. At every moment
// the folder is the old copy or the new one, whole; a crash at any point leaves one of them, and
// whatever the crash left in a staging folder is removed by the next install.
namespace InstalledCopy {

// The installed copy's folder this process runs from; empty when it runs from anywhere else (a
// build tree, a distribution package), which must never replace itself.
QString runningRoot();

// True when the program at `executable` was installed by the system's package manager: the .deb
// ships a marker beside it (PREFIX/share/vantrel/package-managed for PREFIX/bin/vantrel). Such a
// copy belongs to dpkg, which would not know of files swapped behind its back, so it never
// replaces itself. Without an argument, the running program.
bool managedByPackage(const QString &executable = {});
// The marker's path for the program at `executable`.
QString packageMarker(const QString &executable);

// Where `vantrel --install` and scripts/install put a copy: $VANTREL_PREFIX, or
// ~/.local/opt/Vantrel.
QString defaultRoot();

// Called after each step of a replacement, for the log.
using StepObserver = std::function<void(const char *step)>;
// Called with the unpacked copy's version (its VERSION file; empty when it has none) before it is
// swapped in; throws UpdateError to refuse it.
using VersionCheck = std::function<void(const QString &version)>;

// Unpacks the release archive at `archive` (its signature already checked) beside `root` and
// swaps it in for the copy there (or puts it there, when there is none), once `checkVersion`
// accepts it. The old copy and the staging folder are removed afterwards. On failure the copy at
// `root` is the one that was there before and no staging folder is left. Throws UpdateError.
// Blocking; run off the main thread.
void installFrom(const QString &archive, const QString &root, const StepObserver &onStep = {},
                 const VersionCheck &checkVersion = {});

// Removes what an interrupted install left beside `root`, restoring the old copy if the crash
// came between the two renames of a file system that cannot exchange folders. Skipped while
// another install holds the folder.
void removeLeftovers(const QString &root);

} // namespace InstalledCopy
