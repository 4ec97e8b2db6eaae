#include "service/DiskFileStore.h"

#include "service/LocalPendingFile.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

std::string systemError(const std::string &what)
{
    return what + ": " + std::strerror(errno);
}

void syncFolder(const std::string &folder)
{
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

class DiskStoredFile : public StoredFile
{
public:
    DiskStoredFile(int fd, uint64_t size)
        : m_fd(fd)
        , m_size(size)
    {
    }
    ~DiskStoredFile() override { ::close(m_fd); }

    uint64_t size() const override { return m_size; }
    int64_t read(uint64_t offset, char *buffer, size_t size) const override
    {
        for (;;) {
            const ssize_t got = ::pread(m_fd, buffer, size, static_cast<off_t>(offset));
            if (got >= 0 || errno != EINTR)
                return got;
        }
    }

private:
    int m_fd;
    uint64_t m_size;
};

} // namespace

DiskFileStore::DiskFileStore(std::string dataFolder)
    : m_root(std::move(dataFolder))
{
    std::error_code error;
    for (const char *name : {"tmp", "clips", "posters", "releases"}) {
        fs::create_directories(m_root + "/" + name, error);
        if (error)
            throw FileError("Cannot create " + m_root + "/" + name + ": " + error.message());
    }
}

std::string DiskFileStore::folder(FileKind kind) const
{
    return m_root + "/" + folderName(kind);
}

std::string DiskFileStore::pathOf(FileKind kind, const std::string &key) const
{
    checkKey(key);
    return folder(kind) + "/" + key;
}

std::unique_ptr<PendingFile> DiskFileStore::create(FileKind, const std::string &)
{
    return std::make_unique<LocalPendingFile>(m_root + "/tmp", true);
}

void DiskFileStore::commit(std::unique_ptr<PendingFile> file, FileKind kind, const std::string &key)
{
    auto *pending = dynamic_cast<LocalPendingFile *>(file.get());
    if (!pending)
        throw FileError("Not a pending file of this store");
    const std::string target = pathOf(kind, key);
    // A hard link fails when the target exists, where a rename would replace it silently.
    if (::link(pending->path().c_str(), target.c_str()) != 0)
        throw FileError(systemError("Cannot store " + target));
    syncFolder(folder(kind));
    // The pending name goes when `file` is dropped; should the process die first, the next
    // start clears tmp/.
}

std::unique_ptr<StoredFile> DiskFileStore::open(FileKind kind, const std::string &key)
{
    const int fd = ::open(pathOf(kind, key).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    struct stat info
    {
    };
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        return nullptr;
    }
    return std::make_unique<DiskStoredFile>(fd, static_cast<uint64_t>(info.st_size));
}

bool DiskFileStore::exists(FileKind kind, const std::string &key)
{
    std::error_code error;
    return fs::is_regular_file(pathOf(kind, key), error);
}

void DiskFileStore::remove(FileKind kind, const std::string &key)
{
    ::unlink(pathOf(kind, key).c_str());
}

std::vector<StoredEntry> DiskFileStore::list(FileKind kind)
{
    std::vector<StoredEntry> entries;
    std::error_code error;
    const int64_t now = static_cast<int64_t>(::time(nullptr));
    for (const auto &entry : fs::directory_iterator(folder(kind), error)) {
        struct stat info
        {
        };
        if (::stat(entry.path().c_str(), &info) == 0 && S_ISREG(info.st_mode))
            entries.push_back(
                {entry.path().filename().string(), now - static_cast<int64_t>(info.st_mtime)});
    }
    return entries;
}

void DiskFileStore::discardAbandoned(int64_t)
{
    // One server per data folder (it holds a lock): whatever is pending is its own or nobody's.
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(m_root + "/tmp", error))
        fs::remove_all(entry.path(), error);
}
