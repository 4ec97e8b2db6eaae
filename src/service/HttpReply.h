#pragma once

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <optional>
#include <string>

// How the service answers: JSON for the program (errors as {"detail": "…"} with a sentence a
// person can read), HTML pages with a strict content policy for browsers.
namespace HttpReply {

void json(httplib::Response &res, int status, const nlohmann::json &body);
void error(httplib::Response &res, int status, const std::string &detail);
// 429 with a Retry-After header.
void tooManyRequests(httplib::Response &res, int retryAfterSeconds);
void html(httplib::Response &res, int status, const std::string &page);

// The token of an "Authorization: Bearer …" header.
std::optional<std::string> bearerToken(const httplib::Request &req);
// A cookie's value from the request's Cookie header.
std::optional<std::string> cookie(const httplib::Request &req, const std::string &name);

// JSON text made safe for any string: bytes that are not UTF-8 are replaced, never thrown on.
std::string dump(const nlohmann::json &value);

} // namespace HttpReply
