#pragma once

#include <string>

// The service's data folder holds the records (pending sign-in codes among them) and every
// clip: only the account the service runs as may read it.
namespace DataFolder {

// Creates the folder (0700) when it is missing, and tightens one made looser before: the
// folder and the folders in it to 0700, the files in it to 0600. Throws std::runtime_error.
void prepare(const std::string &path);

} // namespace DataFolder
