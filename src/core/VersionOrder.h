#pragma once

#include <string_view>

// How release versions are ordered, by the program (is a release newer than this copy?) and by
// the web service (which release is the newest?): the same answer on both sides, or the service
// would offer a release the program turns down. Plain C++ with no Qt, so the service, which links
// none of the program's libraries, compiles this file into itself.
namespace VersionOrder {

// Whether `version` is newer than `than`: the dot-separated pieces are compared as numbers from
// the left, a missing piece counting as 0. A piece that is not a whole decimal number (digits
// only: "3-beta", "+3", "v2", a number too large for 64 bits) is dropped, so "2.0-beta" is 2 and
// "1..2" is 1.2.
bool isNewer(std::string_view version, std::string_view than);

} // namespace VersionOrder
