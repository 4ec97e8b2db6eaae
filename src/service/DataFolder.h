#pragma once

#include <string>

// The service's data folder holds the records (pending sign-in codes among them) and every
// clip: only the account the service runs as may read it.
namespace DataFolder {

// Creates the folder (0700) when it is missing, and tightens one made looser before: the
// folder and the folders in it to 0700, the files in it to 0600. Throws std::runtime_error.
void prepare(const std::string &path);

// Takes the folder for this process alone, for as long as the returned descriptor stays open:
// one server per data folder (a second one would clean up the first one's uploads), and no
// server while an installation moves. Throws std::runtime_error when another process has it.
int lock(const std::string &path);

} // namespace DataFolder
