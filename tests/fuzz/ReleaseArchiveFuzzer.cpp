// A downloaded release archive, unpacked into a fresh folder as an update unpacks it, then
// searched for the program. Whether it is refused or not, nothing may appear beside the folder,
// and nothing inside it may be a link or writable by others.

#include "FuzzCheck.h"

#include "update/ReleaseArchive.h"
#include "update/UpdateError.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

int memoryFile = -1;
QString archivePath;
QString workspace; // holds only `into` while an input runs

void removeWorkspace()
{
    QDir(workspace).removeRecursively();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    memoryFile = memfd_create("release", 0);
    FUZZ_CHECK(memoryFile >= 0);
    archivePath = QStringLiteral("/proc/self/fd/%1").arg(memoryFile);
    // Memory is the quickest disk for thousands of small unpacks.
    const QString base = QFileInfo(QStringLiteral("/dev/shm")).isWritable()
        ? QStringLiteral("/dev/shm")
        : QDir::tempPath();
    std::string pattern = (base + QStringLiteral("/vantrel-fuzz-XXXXXX")).toStdString();
    FUZZ_CHECK(mkdtemp(pattern.data()));
    workspace = QString::fromStdString(pattern);
    std::atexit(removeWorkspace);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FUZZ_CHECK(ftruncate(memoryFile, 0) == 0);
    FUZZ_CHECK(pwrite(memoryFile, data, size, 0) == ssize_t(size));
    const QString into = workspace + QStringLiteral("/into");
    FUZZ_CHECK(QDir().mkpath(into));

    try {
        ReleaseArchive::unpack(archivePath, into);
        const QString app = ReleaseArchive::findApp(into);
        FUZZ_CHECK(QFileInfo(app + QStringLiteral("/bin/vantrel")).isExecutable());
    } catch (const UpdateError &error) {
        FUZZ_CHECK(!error.text().isEmpty());
    }

    QDirIterator entries(into,
                         QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                         QDirIterator::Subdirectories);
    while (entries.hasNext()) {
        const QFileInfo entry(entries.next());
        FUZZ_CHECK(!entry.isSymLink() && (entry.isFile() || entry.isDir()));
        FUZZ_CHECK(!(entry.permissions() & (QFileDevice::WriteOther | QFileDevice::WriteGroup)));
    }
    FUZZ_CHECK(QDir(into).removeRecursively());
    FUZZ_CHECK(QDir(workspace).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System |
                                       QDir::NoDotAndDotDot));
    return 0;
}
