#include "service/ServiceAccount.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The last --data value, as the command will read it.
std::string dataFolder(const std::vector<std::string> &arguments)
{
    std::string folder;
    for (size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] == "--data" && i + 1 < arguments.size())
            folder = arguments[++i];
        else if (arguments[i].rfind("--data=", 0) == 0)
            folder = arguments[i].substr(7);
    }
    return folder;
}

[[noreturn]] void fail(const std::string &what)
{
    throw std::runtime_error("Cannot work on the data folder as its owner (" + what +
                             "): " + std::strerror(errno) + ".");
}

} // namespace

namespace ServiceAccount {

void becomeDataOwner(const std::vector<std::string> &arguments)
{
    const std::string folder = dataFolder(arguments);
    struct stat info
    {
    };
    if (::geteuid() != 0 || folder.empty() || ::stat(folder.c_str(), &info) != 0 ||
        info.st_uid == 0)
        return;
    errno = 0;
    const passwd *owner = ::getpwuid(info.st_uid);
    if (!owner)
        fail("user " + std::to_string(info.st_uid) + " is unknown");
    // Group before user: once the user id is dropped, the group can no longer be changed.
    if (::initgroups(owner->pw_name, owner->pw_gid) != 0)
        fail("initgroups");
    if (::setgid(owner->pw_gid) != 0)
        fail("setgid");
    if (::setuid(owner->pw_uid) != 0)
        fail("setuid");
    std::fprintf(stderr, "vantrel-service: working on %s as its owner, %s.\n", folder.c_str(),
                 owner->pw_name);
}

} // namespace ServiceAccount
