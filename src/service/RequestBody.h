#pragma once

#include <httplib.h>

#include <cstdint>
#include <map>
#include <string>

// Reading request bodies without ever holding more than a limit in memory. Every POST route of
// the service reads through these, so no body reaches memory whole unless it is small.
namespace RequestBody {

enum class Outcome { ok, tooLarge, broken };

// Reads the body into `body` when it is at most `limit` bytes. A larger body is read to its end
// and dropped (the connection stays usable) unless it is sent in chunks, which are cut off.
Outcome readSmall(const httplib::Request &req, const httplib::ContentReader &reader, uint64_t limit,
                  std::string &body);

// Reads and drops whatever body the request carries, so a refused request leaves the
// connection clean for the next one.
void discard(const httplib::Request &req, const httplib::ContentReader &reader);

// Fields of an application/x-www-form-urlencoded body; of a repeated name the first counts.
std::map<std::string, std::string> parseForm(const std::string &body);

} // namespace RequestBody
