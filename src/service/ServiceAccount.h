#pragma once

#include <string>
#include <vector>

// The account a command works as. An installed service runs as its own system user and owns its
// data folder; root running `vantrel-service user add …` on that folder would leave files the
// service cannot open, so root first becomes the folder's owner.
namespace ServiceAccount {

// When this process runs as root and the --data folder named in `arguments` belongs to another
// user, switches to that user (its groups, group and user id) for good. Throws
// std::runtime_error when the switch fails; does nothing otherwise.
void becomeDataOwner(const std::vector<std::string> &arguments);

} // namespace ServiceAccount
