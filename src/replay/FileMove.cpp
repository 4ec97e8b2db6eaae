#include "replay/FileMove.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QUuid>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace FileMove {

namespace {

class Fd
{
public:
    explicit Fd(int fd)
        : m_fd(fd)
    {
    }
    ~Fd()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return m_fd; }
    // Closes now, reporting the error close() found (a network file system may only report a
    // full disk here).
    int close()
    {
        const int result = ::close(m_fd);
        m_fd = -1;
        return result == 0 ? 0 : errno;
    }

private:
    int m_fd;
};

// Copies the whole of `source` into a new file `target`; returns 0 or the errno that stopped it.
int copyFile(const QByteArray &source, const QByteArray &target)
{
    Fd in(::open(source.constData(), O_RDONLY | O_CLOEXEC));
    if (in.get() < 0)
        return errno;
    struct stat info = {};
    if (::fstat(in.get(), &info) != 0)
        return errno;
    Fd out(::open(target.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (out.get() < 0)
        return errno;
    off_t offset = 0;
    while (offset < info.st_size) {
        const ssize_t sent =
            ::sendfile(out.get(), in.get(), &offset, size_t(info.st_size - offset));
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0)
            return errno;
        if (sent == 0)
            return EIO; // the source shrank under us
    }
    return out.close();
}

QString failure(const QString &destination, int error)
{
    const QFileInfo target(destination);
    return QStringLiteral("Could not save %1 in %2: %3.")
        .arg(target.fileName(), target.absolutePath(),
             QString::fromStdString(std::generic_category().message(error)));
}

// Puts `from` at `to`, replacing what is there or not; 0 or the errno.
int place(const QByteArray &from, const QByteArray &to, bool replace)
{
    if (replace)
        return ::rename(from.constData(), to.constData()) == 0 ? 0 : errno;
    if (::renameat2(AT_FDCWD, from.constData(), AT_FDCWD, to.constData(), RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return errno;
    // A file system without the flag: a hard link fails the same way on a name that is taken.
    if (::link(from.constData(), to.constData()) != 0)
        return errno;
    ::unlink(from.constData());
    return 0;
}

QString move(const QString &source, const QString &destination, bool replace, bool *taken)
{
    const QByteArray from = QFile::encodeName(source);
    const QByteArray to = QFile::encodeName(destination);
    const int moveError = place(from, to, replace);
    if (moveError == 0)
        return {};
    if (moveError == EEXIST && !replace) {
        if (taken)
            *taken = true;
        return failure(destination, moveError);
    }

    const QString hidden =
        QFileInfo(destination)
            .absoluteDir()
            .filePath(QStringLiteral(".vantrel-%1.part")
                          .arg(QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper()));
    const QByteArray partial = QFile::encodeName(hidden);
    int copyError = copyFile(from, partial);
    if (copyError == 0)
        copyError = place(partial, to, replace);
    if (copyError != 0) {
        ::unlink(partial.constData());
        if (copyError == EEXIST && !replace && taken)
            *taken = true;
        // Across file systems the rename's own complaint says nothing useful; the copy's does.
        return failure(destination, moveError == EXDEV ? copyError : moveError);
    }
    ::unlink(from.constData());
    return {};
}

} // namespace

QString moveReplacing(const QString &source, const QString &destination)
{
    return move(source, destination, true, nullptr);
}

QString moveWithoutReplacing(const QString &source, const QString &destination, bool *taken)
{
    if (taken)
        *taken = false;
    return move(source, destination, false, taken);
}

} // namespace FileMove
