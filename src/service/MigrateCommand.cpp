#include "service/MigrateCommand.h"

#include "service/CommandLine.h"
#include "service/DataFolder.h"
#include "service/DiskFileStore.h"
#include "service/PostgresRecordStore.h"
#include "service/S3FileStore.h"
#include "service/SqliteRecordStore.h"
#include "service/StoreOptions.h"

#include <openssl/evp.h>

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// A running digest of bytes; two digests of the same bytes are equal.
class Digest
{
public:
    Digest()
        : m_context(EVP_MD_CTX_new())
    {
        if (!m_context || EVP_DigestInit_ex(m_context, EVP_sha256(), nullptr) != 1)
            throw std::runtime_error("OpenSSL could not start a digest.");
    }
    ~Digest() { EVP_MD_CTX_free(m_context); }
    Digest(const Digest &) = delete;
    Digest &operator=(const Digest &) = delete;

    void add(const char *data, size_t size) { EVP_DigestUpdate(m_context, data, size); }
    std::string finish()
    {
        unsigned char value[EVP_MAX_MD_SIZE];
        unsigned int size = 0;
        EVP_DigestFinal_ex(m_context, value, &size);
        return std::string(reinterpret_cast<char *>(value), size);
    }

private:
    EVP_MD_CTX *m_context;
};

std::string digestOf(const StoredFile &file)
{
    Digest digest;
    std::vector<char> buffer(1 << 20);
    file.willRead(0, file.size());
    uint64_t offset = 0;
    while (offset < file.size()) {
        const int64_t got = file.read(offset, buffer.data(), buffer.size());
        if (got <= 0)
            throw FileError("a file could not be read back in full");
        digest.add(buffer.data(), size_t(got));
        offset += uint64_t(got);
    }
    return digest.finish();
}

// Copies one file into the bucket and reads it back; throws FileError unless the copy holds
// the same bytes.
void copyFile(DiskFileStore &from, S3FileStore &to, FileKind kind, const std::string &key,
              const std::string &data)
{
    const std::unique_ptr<StoredFile> source = from.open(kind, key);
    if (!source)
        throw FileError("cannot open " + key);
    const int fd = ::open((data + "/" + FileStore::folderName(kind) + "/" + key).c_str(),
                          O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        throw FileError("cannot open " + key);
    try {
        to.client().putFile(to.objectKey(kind, key), fd, source->size());
    } catch (...) {
        ::close(fd);
        throw;
    }
    ::close(fd);
    const std::unique_ptr<StoredFile> copy = to.open(kind, key);
    if (!copy || copy->size() != source->size() || digestOf(*copy) != digestOf(*source))
        throw FileError("the copy of " + key + " differs from the original");
}

} // namespace

namespace MigrateCommand {

int run(const std::vector<std::string> &arguments)
{
    std::set<std::string> options {"to"};
    options.insert(StoreOptions::names().begin(), StoreOptions::names().end());
    const CommandLine line(arguments, options);
    if (!line.words().empty() || line.option("database"))
        throw CommandLine::Error("Usage: vantrel-service migrate --data DIR --to postgresql://… "
                                 "[--files s3://BUCKET/PREFIX]");
    const std::string data = line.required("data");
    const std::string target = line.required("to");
    if (!StoreOptions::isPostgresUrl(target))
        throw CommandLine::Error("--to takes a PostgreSQL address, such as "
                                 "postgresql://vantrel@db.example.org/vantrel.");
    if (!fs::exists(data + "/records.sqlite3"))
        throw std::runtime_error("There are no records to move in " + data + ".");
    const StoreOptions::Choice choice = StoreOptions::parse(line, true);
    const int lock = DataFolder::lock(data);

    SqliteRecordStore sourceRecords(data + "/records.sqlite3", SqliteRecordStore::ReadOnly {});
    DiskFileStore sourceFiles(data);
    RecordsSnapshot records = sourceRecords.snapshot();
    PostgresRecordStore targetRecords(target, 2);

    int copied = 0;
    int missing = 0;
    if (choice.s3) {
        S3FileStore targetFiles(*choice.s3, choice.s3Prefix, data);
        targetFiles.client().ensureBucket();
        std::erase_if(records.clips, [&](ClipRecord &clip) {
            // A clip whose file is gone would be dropped at the server's next start anyway.
            if (!sourceFiles.exists(FileKind::clip, clip.id + ".mp4")) {
                ++missing;
                return true;
            }
            copyFile(sourceFiles, targetFiles, FileKind::clip, clip.id + ".mp4", data);
            ++copied;
            if (clip.hasPoster && sourceFiles.exists(FileKind::poster, clip.id + ".jpg")) {
                copyFile(sourceFiles, targetFiles, FileKind::poster, clip.id + ".jpg", data);
                ++copied;
            } else {
                clip.hasPoster = false;
            }
            return false;
        });
        for (const ReleaseRecord &release : records.releases) {
            copyFile(sourceFiles, targetFiles, FileKind::release, release.fileName, data);
            ++copied;
        }
        std::fprintf(stderr, "Copied and checked %d file(s) into s3://%s/%s.\n", copied,
                     choice.s3->bucket.c_str(), choice.s3Prefix.c_str());
    }
    // The packs lose the clips that did not move.
    std::set<std::string> moved;
    for (const ClipRecord &clip : records.clips)
        moved.insert(clip.id);
    for (PackRecord &pack : records.packs)
        std::erase_if(pack.clipIds, [&](const std::string &id) { return !moved.contains(id); });
    targetRecords.restore(records);
    std::fprintf(
        stderr,
        "Moved %zu account(s), %zu token(s), %zu clip(s), %zu pack(s) and %zu "
        "release(s)%s. %s is unchanged.\n",
        records.users.size(), records.tokens.size(), records.clips.size(), records.packs.size(),
        records.releases.size(),
        missing > 0
            ? (", leaving out " + std::to_string(missing) + " clip(s) whose file was gone").c_str()
            : "",
        data.c_str());
    ::close(lock);
    return 0;
}

} // namespace MigrateCommand
