#include "update/InstalledCopy.h"

#include "core/Log.h"
#include "core/ProgramVersion.h"
#include "update/ReleaseArchive.h"
#include "update/UpdateError.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

const QString stagingPrefix = QStringLiteral(".vantrel-staging-");
// Where the old copy waits while the new one moves in, on file systems that cannot exchange.
const QString previousName = QStringLiteral(".previous");

QString systemError(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// Two installs into one folder (the program updating itself while `vantrel --install` runs) take
// turns; an install holds the lock from cleaning up to removing its staging folder.
class FolderLock
{
public:
    FolderLock(const QString &folder, bool wait)
    {
        m_fd = ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (m_fd < 0)
            return;
        if (::flock(m_fd, wait ? LOCK_EX : LOCK_EX | LOCK_NB) != 0) {
            ::close(m_fd);
            m_fd = -1;
        }
    }
    ~FolderLock()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    FolderLock(const FolderLock &) = delete;
    FolderLock &operator=(const FolderLock &) = delete;
    bool held() const { return m_fd >= 0; }

private:
    int m_fd = -1;
};

bool renameFolders(const QString &from, const QString &to, unsigned flags)
{
    return ::renameat2(AT_FDCWD, QFile::encodeName(from).constData(), AT_FDCWD,
                       QFile::encodeName(to).constData(), flags) == 0;
}

// Puts `newCopy` at `root`. The exchange is one step: `root` is the old copy, then the new one,
// and the old one ends up where the new one was. File systems without exchange get two renames,
// undone if the second fails; a crash between them is repaired by the next install.
void swapIn(const QString &newCopy, const QString &root, const QString &staging)
{
    if (renameFolders(newCopy, root, RENAME_EXCHANGE))
        return;
    int error = errno;
    if (error == ENOENT && !QFileInfo::exists(root)) {
        if (renameFolders(newCopy, root, RENAME_NOREPLACE))
            return;
        error = errno;
    } else if (error == EINVAL || error == ENOSYS) {
        const QString aside = staging + QLatin1Char('/') + previousName;
        if (renameFolders(root, aside, RENAME_NOREPLACE)) {
            if (renameFolders(newCopy, root, RENAME_NOREPLACE))
                return;
            error = errno;
            renameFolders(aside, root, RENAME_NOREPLACE);
        } else {
            error = errno;
        }
    }
    throw UpdateError(QStringLiteral("Couldn’t replace %1: %2").arg(root, systemError(error)));
}

// Only a folder that is a copy of Vantrel (or an empty one) is ever replaced: the old folder is
// deleted afterwards, and VANTREL_PREFIX pointing at the wrong place must not cost anyone a folder.
bool replaceable(const QString &root)
{
    const QFileInfo info(root);
    if (!info.exists())
        return true;
    if (!info.isDir() || info.isSymLink())
        return false;
    return QDir(root).isEmpty(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden) ||
        QFileInfo(root + QStringLiteral("/bin/vantrel")).isFile() ||
        QFileInfo(root + QStringLiteral("/VERSION")).isFile();
}

void cleanLocked(const QString &parent, const QString &root)
{
    const QStringList leftovers = QDir(parent).entryList(
        {stagingPrefix + QLatin1Char('*')}, QDir::Dirs | QDir::Hidden | QDir::NoSymLinks);
    for (const QString &name : leftovers) {
        const QString staging = parent + QLatin1Char('/') + name;
        const QString previous = staging + QLatin1Char('/') + previousName;
        if (!QFileInfo::exists(root) && QFileInfo(previous).isDir() &&
            renameFolders(previous, root, RENAME_NOREPLACE))
            Log::system(
                QStringLiteral("update: restored %1 after an interrupted install").arg(root));
        if (!QDir(staging).removeRecursively())
            Log::system(QStringLiteral("update: could not remove %1").arg(staging));
    }
}

} // namespace

namespace InstalledCopy {

QString runningRoot()
{
    const QFileInfo executable(QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath());
    const QDir bin = executable.dir();
    if (executable.fileName() != QLatin1String("vantrel") || bin.dirName() != QLatin1String("bin"))
        return {};
    const QString root = QFileInfo(bin.absolutePath()).absolutePath();
    if (!QFileInfo(root + QStringLiteral("/VERSION")).isFile())
        return {};
    return root;
}

QString packageMarker(const QString &executable)
{
    const QDir bin = QFileInfo(executable).dir();
    return QFileInfo(bin.absolutePath()).absolutePath() +
        QStringLiteral("/share/vantrel/package-managed");
}

bool managedByPackage(const QString &executable)
{
    const QString program = executable.isEmpty()
        ? QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath()
        : executable;
    return !program.isEmpty() && QFileInfo(packageMarker(program)).isFile();
}

QString defaultRoot()
{
    const QString prefix = qEnvironmentVariable("VANTREL_PREFIX");
    if (!prefix.isEmpty())
        return QDir::cleanPath(QDir(prefix).absolutePath());
    return QDir::homePath() + QStringLiteral("/.local/opt/Vantrel");
}

void installFrom(const QString &archive, const QString &rootPath, const StepObserver &onStep,
                 const VersionCheck &checkVersion)
{
    const auto step = [&onStep](const char *name) {
        if (onStep)
            onStep(name);
    };
    const QString root = QDir::cleanPath(QDir(rootPath).absolutePath());
    const QString parent = QFileInfo(root).absolutePath();
    if (!QDir().mkpath(parent))
        throw UpdateError(QStringLiteral("Couldn’t create %1.").arg(parent));
    FolderLock lock(parent, true);
    if (!lock.held())
        throw UpdateError(QStringLiteral("Couldn’t open %1: %2").arg(parent, systemError(errno)));
    cleanLocked(parent, root);
    if (!replaceable(root))
        throw UpdateError(
            QStringLiteral("Couldn’t replace %1: it is not a copy of Vantrel.").arg(root));

    QByteArray pattern = QFile::encodeName(parent + QLatin1Char('/') + stagingPrefix + "XXXXXX");
    if (!::mkdtemp(pattern.data()))
        throw UpdateError(QStringLiteral("Couldn’t prepare the update in %1: %2")
                              .arg(parent, systemError(errno)));
    const QString staging = QFile::decodeName(pattern);
    // Whatever happens from here, the staging folder goes; after a swap it holds the old copy.
    struct Remover
    {
        QString path;
        ~Remover()
        {
            if (!QDir(path).removeRecursively())
                Log::system(QStringLiteral("update: could not remove %1").arg(path));
        }
    } remover {staging};
    step("staged");

    ReleaseArchive::unpack(archive, staging);
    step("unpacked");
    const QString newCopy = ReleaseArchive::findApp(staging);
    if (checkVersion)
        checkVersion(ProgramVersion::readVersionFile(newCopy + QStringLiteral("/VERSION")));
    swapIn(newCopy, root, staging);
    step("swapped");
}

void removeLeftovers(const QString &rootPath)
{
    const QString root = QDir::cleanPath(QDir(rootPath).absolutePath());
    const QString parent = QFileInfo(root).absolutePath();
    FolderLock lock(parent, false);
    if (lock.held())
        cleanLocked(parent, root);
}

} // namespace InstalledCopy
