#include "service/S3FileStore.h"

#include "service/S3PendingFile.h"

#include <ctime>
#include <filesystem>
#include <mutex>

namespace fs = std::filesystem;

namespace {

// An object read through ranged GETs: one request for each run of reads in order, a new one
// when a read jumps elsewhere.
class S3StoredFile : public StoredFile
{
public:
    S3StoredFile(S3Client &client, std::string key, uint64_t size)
        : m_client(client)
        , m_key(std::move(key))
        , m_size(size)
    {
    }

    uint64_t size() const override { return m_size; }

    void willRead(uint64_t first, uint64_t length) const override
    {
        std::scoped_lock lock(m_mutex);
        m_planned = {first, length};
    }

    int64_t read(uint64_t offset, char *buffer, size_t size) const override
    {
        std::scoped_lock lock(m_mutex);
        if (offset >= m_size)
            return 0;
        try {
            if (!m_reader || offset != m_position) {
                // The planned run when the read falls in it; otherwise from here to the end.
                uint64_t end = m_size;
                if (offset >= m_planned.first && offset < m_planned.first + m_planned.length)
                    end = std::min(m_size, m_planned.first + m_planned.length);
                m_reader = m_client.read(m_key, offset, end - offset);
                m_position = offset;
            }
            const int64_t got = m_reader->read(buffer, size);
            if (got > 0)
                m_position += uint64_t(got);
            else
                m_reader.reset();
            return got;
        } catch (const FileError &) {
            m_reader.reset();
            return -1;
        }
    }

private:
    struct Run
    {
        uint64_t first = 0;
        uint64_t length = 0;
    };

    S3Client &m_client;
    const std::string m_key;
    const uint64_t m_size;
    mutable std::mutex m_mutex;
    mutable Run m_planned; // guarded by m_mutex
    mutable std::unique_ptr<S3Client::Reader> m_reader; // guarded by m_mutex
    mutable uint64_t m_position = 0; // guarded by m_mutex
};

} // namespace

S3FileStore::S3FileStore(S3Settings settings, std::string prefix, std::string localFolder)
    : m_client(std::move(settings))
    , m_prefix(prefix.empty() || prefix.back() == '/' ? prefix : prefix + "/")
    , m_tmp(localFolder + "/tmp")
{
    std::error_code error;
    fs::create_directories(m_tmp, error);
    if (error)
        throw FileError("Cannot create " + m_tmp + ": " + error.message());
}

std::string S3FileStore::folderOf(FileKind kind) const
{
    return m_prefix + folderName(kind) + "/";
}

std::string S3FileStore::objectKey(FileKind kind, const std::string &key) const
{
    checkKey(key);
    return folderOf(kind) + key;
}

std::unique_ptr<PendingFile> S3FileStore::create(FileKind kind, const std::string &key)
{
    return std::make_unique<S3PendingFile>(m_client, m_tmp, objectKey(kind, key));
}

void S3FileStore::commit(std::unique_ptr<PendingFile> file, FileKind kind, const std::string &key)
{
    auto *pending = dynamic_cast<S3PendingFile *>(file.get());
    if (!pending || pending->objectKey() != objectKey(kind, key))
        throw FileError("Not a pending file of this store, or not for " + key);
    // Keys are new ids, never reused: nothing is replaced.
    pending->send();
}

std::unique_ptr<StoredFile> S3FileStore::open(FileKind kind, const std::string &key)
{
    const std::string object = objectKey(kind, key);
    const std::optional<S3Client::Object> found = m_client.head(object);
    if (!found)
        return nullptr;
    return std::make_unique<S3StoredFile>(m_client, object, found->size);
}

bool S3FileStore::exists(FileKind kind, const std::string &key)
{
    return m_client.head(objectKey(kind, key)).has_value();
}

void S3FileStore::remove(FileKind kind, const std::string &key)
{
    m_client.remove(objectKey(kind, key));
}

std::vector<StoredEntry> S3FileStore::list(FileKind kind)
{
    const std::string folder = folderOf(kind);
    const int64_t now = int64_t(::time(nullptr));
    std::vector<StoredEntry> entries;
    for (const S3Client::Object &object : m_client.list(folder)) {
        const std::string key = object.key.substr(folder.size());
        if (!key.empty() && key.find('/') == std::string::npos)
            entries.push_back({key, now - object.modified});
    }
    return entries;
}

void S3FileStore::discardAbandoned(int64_t sharedGraceSeconds)
{
    // The local pending files are this server's own (its data folder is locked).
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(m_tmp, error))
        fs::remove_all(entry.path(), error);
    // Uploads in parts that a server died in the middle of; recent ones may be another's.
    const int64_t now = int64_t(::time(nullptr));
    for (const S3Client::Upload &upload : m_client.unfinishedUploads(m_prefix))
        if (now - upload.initiated >= sharedGraceSeconds)
            m_client.abortUpload(upload.key, upload.uploadId);
}
