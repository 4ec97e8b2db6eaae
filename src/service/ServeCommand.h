#pragma once

#include <string>
#include <vector>

// `vantrel-service serve`: checks its options, repairs the store, and serves until SIGINT or
// SIGTERM. Without a certificate it serves plain HTTP, and then only on the loopback address.
namespace ServeCommand {

int run(const std::vector<std::string> &arguments);

} // namespace ServeCommand
