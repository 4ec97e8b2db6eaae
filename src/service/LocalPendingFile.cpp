#include "service/LocalPendingFile.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

// Writing back starts every this many bytes, so that the flush at the end of a large upload has
// little left to wait for.
constexpr uint64_t writeBackBytes = 8 << 20;

std::string systemError(const std::string &what)
{
    return what + ": " + std::strerror(errno);
}

} // namespace

LocalPendingFile::LocalPendingFile(const std::string &folder, bool durable)
    : m_durable(durable)
{
    m_path = folder + "/upload-XXXXXX";
    m_fd = ::mkostemp(m_path.data(), O_CLOEXEC);
    if (m_fd < 0)
        throw FileError(systemError("Cannot create a file in " + folder));
}

LocalPendingFile::~LocalPendingFile()
{
    if (m_fd >= 0)
        ::close(m_fd);
    // A committed file lives on under its own name (a hard link, or an object elsewhere); this
    // one always goes.
    ::unlink(m_path.c_str());
}

void LocalPendingFile::write(const char *data, size_t size)
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
    if (m_durable && m_size - m_startedWriteBack >= writeBackBytes) {
        ::sync_file_range(m_fd, off64_t(m_startedWriteBack), off64_t(m_size - m_startedWriteBack),
                          SYNC_FILE_RANGE_WRITE);
        m_startedWriteBack = m_size;
    }
}

void LocalPendingFile::finish()
{
    if (m_durable && ::fsync(m_fd) != 0)
        throw FileError(systemError("Cannot flush " + m_path));
}
