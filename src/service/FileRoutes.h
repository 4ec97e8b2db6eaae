#pragma once

#include "service/ServiceContext.h"

#include <httplib.h>

// The raw files at stable addresses, with byte ranges (browsers seek with them, downloads
// resume with them): /files/ID.mp4 and its poster /files/ID.jpg, and release archives under
// /download/.
namespace FileRoutes {

void install(httplib::Server &server, ServiceContext &context);

} // namespace FileRoutes
