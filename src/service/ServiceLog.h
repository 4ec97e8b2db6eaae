#pragma once

#include <string>
#include <string_view>

// The service's log: lines on standard error, each with the time. No line ever holds a secret:
// sign-in codes, tokens and the values of `code`, `token` and `password` parameters are masked
// in everything written here, whatever a client put in its request.
namespace ServiceLog {

// "2024-05-01T12:00:00Z TEXT", masked.
void line(const std::string &text);
// One answered request: who asked (and through which proxy), what, and the status.
void request(const std::string &client, const std::string &via, const std::string &method,
             const std::string &path, int status);

// The text with every secret masked.
std::string redacted(std::string_view text);

} // namespace ServiceLog
