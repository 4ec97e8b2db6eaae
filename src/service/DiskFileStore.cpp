#include "service/DiskFileStore.h"

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

// Keys are made by the service itself; this refuses anything that could leave its folder all
// the same.
void checkKey(const std::string &key)
{
    if (key.empty() || key.find('/') != std::string::npos || key.find('\0') != std::string::npos ||
        key.front() == '.')
        throw FileError("Not a file key: " + key);
}

void syncFolder(const std::string &folder)
{
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

class DiskPendingFile : public PendingFile
{
public:
    explicit DiskPendingFile(const std::string &folder)
    {
        m_path = folder + "/upload-XXXXXX";
        m_fd = ::mkostemp(m_path.data(), O_CLOEXEC);
        if (m_fd < 0)
            throw FileError(systemError("Cannot create a file in " + folder));
    }
    ~DiskPendingFile() override
    {
        if (m_fd >= 0)
            ::close(m_fd);
        // A committed file lives on under its own name (a hard link); this one always goes.
        ::unlink(m_path.c_str());
    }

    void write(const char *data, size_t size) override
    {
        while (size > 0) {
            const ssize_t written = ::write(m_fd, data, size);
            if (written < 0) {
                if (errno == EINTR)
                    continue;
                throw FileError(systemError("Cannot write " + m_path));
            }
            data += written;
            size -= static_cast<size_t>(written);
            m_size += static_cast<uint64_t>(written);
        }
        // Start writing back what has come so far, so that the flush at the end of a large
        // upload has little left to wait for.
        if (m_size - m_startedWriteBack >= writeBackBytes) {
            ::sync_file_range(m_fd, off64_t(m_startedWriteBack),
                              off64_t(m_size - m_startedWriteBack), SYNC_FILE_RANGE_WRITE);
            m_startedWriteBack = m_size;
        }
    }
    void finish() override
    {
        if (::fsync(m_fd) != 0)
            throw FileError(systemError("Cannot flush " + m_path));
    }
    uint64_t size() const override { return m_size; }
    const std::string &path() const override { return m_path; }

private:
    static constexpr uint64_t writeBackBytes = 8 << 20;

    std::string m_path;
    int m_fd = -1;
    uint64_t m_size = 0;
    uint64_t m_startedWriteBack = 0;
};

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
    switch (kind) {
    case FileKind::clip:
        return m_root + "/clips";
    case FileKind::poster:
        return m_root + "/posters";
    case FileKind::release:
        return m_root + "/releases";
    }
    return m_root + "/tmp";
}

std::string DiskFileStore::pathOf(FileKind kind, const std::string &key) const
{
    checkKey(key);
    return folder(kind) + "/" + key;
}

std::unique_ptr<PendingFile> DiskFileStore::create(FileKind)
{
    return std::make_unique<DiskPendingFile>(m_root + "/tmp");
}

void DiskFileStore::commit(std::unique_ptr<PendingFile> file, FileKind kind, const std::string &key)
{
    auto *pending = dynamic_cast<DiskPendingFile *>(file.get());
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

std::vector<std::string> DiskFileStore::keys(FileKind kind)
{
    std::vector<std::string> keys;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(folder(kind), error))
        if (entry.is_regular_file(error))
            keys.push_back(entry.path().filename().string());
    return keys;
}

int64_t DiskFileStore::ageSeconds(FileKind kind, const std::string &key)
{
    struct stat info
    {
    };
    if (::stat(pathOf(kind, key).c_str(), &info) != 0)
        return 0;
    return static_cast<int64_t>(::time(nullptr)) - static_cast<int64_t>(info.st_mtime);
}

void DiskFileStore::discardAbandoned()
{
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(m_root + "/tmp", error))
        fs::remove_all(entry.path(), error);
}
