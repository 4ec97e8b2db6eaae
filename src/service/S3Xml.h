#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Reads the few things the service needs from S3's XML answers (keys, sizes, times, an upload's
// id, an error's code). The answers are flat and come from the store the operator named; this
// looks for elements by name and decodes the five XML entities, nothing more.
namespace S3Xml {

// The text of the first element `name` (its inner XML for one that holds others), decoded;
// empty when there is none.
std::string element(const std::string &xml, const std::string &name);
// The inner XML of every element `name`, in order.
std::vector<std::string> elements(const std::string &xml, const std::string &name);
// "2026-11-26T11:02:03.000Z" as Unix seconds; 0 when it is not such a time.
int64_t time(const std::string &text);

} // namespace S3Xml
