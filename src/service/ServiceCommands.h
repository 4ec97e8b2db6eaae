#pragma once

#include <string>
#include <vector>

// The vantrel-service command line: `serve`, and the operator's commands that change the
// records while it runs (users, tokens, releases, sponsor cards). Each returns the process's
// exit status: 0 done, 1 failed, 2 a usage mistake; messages go to standard error and only the
// asked-for value (a token) to standard output.
namespace ServiceCommands {

int run(const std::vector<std::string> &arguments);

std::string usage();

} // namespace ServiceCommands
