#pragma once

#include <QString>

#include <chrono>

// Starting the freshly installed copy once this one has gone.
namespace Relaunch {

// Starts /bin/sh in a session of its own: it sleeps `delay`, waits (at most ten seconds) for this
// process to end (a zombie counts as ended), so the new copy does not hand itself over to the old
// one still quitting, then execs `executable`. The new copy inherits this one's environment and
// output. Throws UpdateError with the system's description when the shell cannot be started.
void start(const QString &executable, std::chrono::milliseconds delay = std::chrono::seconds(1));

// The shell command `start` runs (single quotes in the path are escaped).
QString command(const QString &executable, std::chrono::milliseconds delay, long waitForPid);

} // namespace Relaunch
