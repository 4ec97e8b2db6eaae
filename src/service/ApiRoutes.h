#pragma once

#include "service/ServiceContext.h"

#include <httplib.h>

// The JSON calls the program makes under /v1: device sign-in, the profile, clip upload, packs,
// the newest release and the sponsor cards.
namespace ApiRoutes {

void install(httplib::Server &server, ServiceContext &context);

} // namespace ApiRoutes
