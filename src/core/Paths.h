#pragma once

#include <QString>

// Where Vantrel keeps what the user sees on disk. Each location is worked out once per process,
// on first use.
namespace Paths {

// "Vantrel" in the XDG videos folder (~/Videos/Vantrel). The folder is created whenever it is
// asked for, so a folder the user removed comes back with the next clip; a folder that cannot be
// made is reported once on standard error and the path is returned all the same.
QString recordings();

// $XDG_STATE_HOME/Vantrel/Vantrel.log (~/.local/state/Vantrel/Vantrel.log); the folder is
// created on first use, the file by the first line.
QString logFile();

} // namespace Paths
