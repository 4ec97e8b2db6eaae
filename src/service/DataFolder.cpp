#include "service/DataFolder.h"

#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/file.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr fs::perms folderMode = fs::perms::owner_all;
constexpr fs::perms fileMode = fs::perms::owner_read | fs::perms::owner_write;

bool looser(const fs::path &path, fs::perms wanted, std::error_code &error)
{
    const fs::perms now = fs::symlink_status(path, error).permissions();
    return !error && (now & ~wanted) != fs::perms::none;
}

} // namespace

namespace DataFolder {

void prepare(const std::string &path)
{
    std::error_code error;
    fs::create_directories(path, error);
    if (error)
        throw std::runtime_error("Cannot create the data folder " + path + ": " + error.message());
    if (!fs::is_directory(path, error))
        throw std::runtime_error("The data folder " + path + " is not a folder.");
    if (looser(path, folderMode, error))
        fs::permissions(path, folderMode, fs::perm_options::replace, error);
    if (error)
        throw std::runtime_error("Cannot make the data folder " + path +
                                 " private: " + error.message());
    // Only what is looser than it should be is touched, so a folder set up right costs one
    // look at each entry. Links are never followed out of the folder.
    for (auto entry = fs::recursive_directory_iterator(path, error);
         !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        std::error_code ignored;
        const fs::file_status status = entry->symlink_status(ignored);
        const bool folder = fs::is_directory(status);
        if (!folder && !fs::is_regular_file(status))
            continue;
        const fs::perms wanted = folder ? folderMode : fileMode;
        if ((status.permissions() & ~wanted) != fs::perms::none)
            fs::permissions(entry->path(), wanted, fs::perm_options::replace, ignored);
    }
}

int lock(const std::string &path)
{
    const std::string file = path + "/serve.lock";
    const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (fd >= 0)
            ::close(fd);
        throw std::runtime_error("Another vantrel-service is using " + path + " already.");
    }
    return fd;
}

} // namespace DataFolder
