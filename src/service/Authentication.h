#pragma once

#include "service/ServiceContext.h"

#include <httplib.h>

#include <optional>
#include <string>

// Who is asking: the program by its bearer token, a browser by its session cookie, a person by
// email and password on a page.
namespace Authentication {

constexpr const char *sessionCookie = "vantrel_session";

// The user of the request's bearer token. Otherwise answers 401 (or 429 when the token is over
// its request rate) into `res` and returns none.
std::optional<UserRecord> bearer(ServiceContext &context, const httplib::Request &req,
                                 httplib::Response &res);

// The user of the browser's session cookie, if it is still live.
std::optional<UserRecord> session(ServiceContext &context, const httplib::Request &req);

// The account when the password is right. Takes as long for an unknown email as for a wrong
// password, so the answer's timing does not tell which addresses have accounts.
std::optional<UserRecord> password(ServiceContext &context, const std::string &email,
                                   const std::string &password);

} // namespace Authentication
