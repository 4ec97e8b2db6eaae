#pragma once

#include "service/RecordStore.h"

#include <optional>
#include <string>
#include <vector>

// The releases the service keeps, ordered as the program orders them (VersionOrder).
namespace ReleaseVersion {

// Whether `a` is newer than `b`: 1.1.10 is newer than 1.1.3.
bool isNewer(const std::string &a, const std::string &b);

// The newest of the releases; of equal versions the one added last.
std::optional<ReleaseRecord> newest(const std::vector<ReleaseRecord> &releases);

// A version that can name a file: starts with a digit, then digits, letters, '.', '-' or '+',
// at most 32 characters.
bool isValid(const std::string &version);

// The archive's file name for a version: "Vantrel-1.2.0-linux-x86_64.tar.gz".
std::string archiveName(const std::string &version);

} // namespace ReleaseVersion
