#include "update/ReleaseArchive.h"

#include "core/Log.h"
#include "update/UpdateError.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <archive.h>
#include <archive_entry.h>

#include <memory>

namespace {

struct ReadFree
{
    void operator()(archive *a) const { archive_read_free(a); }
};
struct WriteFree
{
    void operator()(archive *a) const { archive_write_free(a); }
};
using ArchivePtr = std::unique_ptr<archive, ReadFree>;
using DiskPtr = std::unique_ptr<archive, WriteFree>;

// A release is some tens of megabytes unpacked; this only stops an archive that would fill the
// disk.
constexpr la_int64_t largestUnpackedBytes = la_int64_t(4) << 30;
constexpr int mostEntries = 100000;

[[noreturn]] void refuse(const QString &why)
{
    Log::system(QStringLiteral("update: archive refused: ") + why);
    throw UpdateError(UpdateError::cannotOpenArchive());
}

// The entry's name as a clean relative path, or refuse it.
QString checkedName(archive_entry *entry)
{
    const char *raw = archive_entry_pathname(entry);
    if (!raw || !*raw)
        refuse(QStringLiteral("an entry without a name"));
    const QString name = QString::fromUtf8(raw);
    if (name.startsWith(QLatin1Char('/')))
        refuse(QStringLiteral("absolute name ") + name);
    const QStringList parts = name.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    if (parts.isEmpty())
        refuse(QStringLiteral("an entry without a name"));
    for (const QString &part : parts) {
        if (part == QLatin1String(".."))
            refuse(QStringLiteral("name leaving the folder ") + name);
    }
    return parts.join(QLatin1Char('/'));
}

void copyData(archive *in, archive *out, const QString &name)
{
    const void *block = nullptr;
    size_t size = 0;
    la_int64_t offset = 0;
    for (;;) {
        const int status = archive_read_data_block(in, &block, &size, &offset);
        if (status == ARCHIVE_EOF)
            return;
        if (status != ARCHIVE_OK && status != ARCHIVE_WARN)
            refuse(QStringLiteral("damaged data in %1: %2")
                       .arg(name, QString::fromUtf8(archive_error_string(in))));
        if (archive_write_data_block(out, block, size, offset) != ARCHIVE_OK)
            throw UpdateError(QStringLiteral("Couldn’t write the update: %1")
                                  .arg(QString::fromUtf8(archive_error_string(out))));
    }
}

} // namespace

namespace ReleaseArchive {

void unpack(const QString &archivePath, const QString &into)
{
    ArchivePtr in(archive_read_new());
    DiskPtr out(archive_write_disk_new());
    if (!in || !out)
        throw std::bad_alloc();
    archive_read_support_filter_gzip(in.get());
    archive_read_support_format_tar(in.get());
    // The secure flags back up the checks below; permissions are set by us, never owners.
    // (Absolute names are refused below: the paths handed to the writer are absolute by design,
    // the staging folder's own, since a threaded program cannot change into it.)
    archive_write_disk_set_options(out.get(),
                                   ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_PERM |
                                       ARCHIVE_EXTRACT_SECURE_NODOTDOT |
                                       ARCHIVE_EXTRACT_SECURE_SYMLINKS);
    if (archive_read_open_filename(in.get(), QFile::encodeName(archivePath).constData(), 1 << 16) !=
        ARCHIVE_OK)
        refuse(QString::fromUtf8(archive_error_string(in.get())));

    const QString base = QDir(into).absolutePath() + QLatin1Char('/');
    la_int64_t total = 0;
    int count = 0;
    for (;;) {
        archive_entry *entry = nullptr;
        const int status = archive_read_next_header(in.get(), &entry);
        if (status == ARCHIVE_EOF)
            break;
        if (status != ARCHIVE_OK && status != ARCHIVE_WARN)
            refuse(QString::fromUtf8(archive_error_string(in.get())));
        const QString name = checkedName(entry);
        // A hard link reports no file type of its own; both kinds of link are refused.
        const mode_t type = archive_entry_filetype(entry);
        if (archive_entry_hardlink(entry) || (type != AE_IFREG && type != AE_IFDIR))
            refuse(QStringLiteral("%1 is not a plain file or folder").arg(name));
        if (++count > mostEntries)
            refuse(QStringLiteral("too many entries"));
        if (type == AE_IFREG) {
            total += archive_entry_size(entry);
            if (archive_entry_size(entry) < 0 || total > largestUnpackedBytes)
                refuse(QStringLiteral("larger than any release"));
        }
        // Executables stay executable; nothing becomes set-id or writable by others, and every
        // folder stays ours to remove.
        const bool executable = type == AE_IFDIR || (archive_entry_perm(entry) & 0111);
        archive_entry_set_perm(entry, executable ? 0755 : 0644);
        archive_entry_set_pathname(entry, QFile::encodeName(base + name).constData());

        if (archive_write_header(out.get(), entry) != ARCHIVE_OK)
            throw UpdateError(QStringLiteral("Couldn’t write the update: %1")
                                  .arg(QString::fromUtf8(archive_error_string(out.get()))));
        if (type == AE_IFREG)
            copyData(in.get(), out.get(), name);
        if (archive_write_finish_entry(out.get()) != ARCHIVE_OK)
            throw UpdateError(QStringLiteral("Couldn’t write the update: %1")
                                  .arg(QString::fromUtf8(archive_error_string(out.get()))));
    }
    if (count == 0)
        refuse(QStringLiteral("an empty archive"));
    if (archive_write_close(out.get()) != ARCHIVE_OK)
        throw UpdateError(QStringLiteral("Couldn’t write the update: %1")
                              .arg(QString::fromUtf8(archive_error_string(out.get()))));
}

QString findApp(const QString &unpacked)
{
    const QFileInfoList entries = QDir(unpacked).entryInfoList(
        QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden | QDir::NoSymLinks, QDir::Name);
    for (const QFileInfo &entry : entries) {
        const QFileInfo program(entry.filePath() + QStringLiteral("/bin/vantrel"));
        if (program.isFile() && !program.isSymLink() && program.isExecutable())
            return entry.filePath();
    }
    throw UpdateError(UpdateError::noAppInside());
}

} // namespace ReleaseArchive
