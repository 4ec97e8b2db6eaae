#pragma once

#include "service/ServiceContext.h"

#include <httplib.h>

// The pages people open in a browser: the device sign-in page the program sends them to, the
// clip and folder pages of shared links, and their account.
namespace PageRoutes {

void install(httplib::Server &server, ServiceContext &context);

} // namespace PageRoutes
