#pragma once

#include "service/FileStore.h"
#include "service/S3Client.h"

// The files as objects in an S3-compatible bucket, under a prefix of their own
// (PREFIX/clips/ID.mp4, PREFIX/posters/ID.jpg, PREFIX/releases/NAME), for servers that share
// them. A pending file is a local file in the server's own data folder (where the upload check
// reads it); the commit sends it (large ones in parts, from the file, several at once) and the
// object appears whole when the store has it all. Reads are served through the service, each a
// ranged GET streamed on: the bucket stays private, and a deleted clip cannot be reached through
// a link handed out before.
class S3FileStore : public FileStore
{
public:
    // `localFolder` holds the pending files (its tmp/ folder). Throws FileError.
    S3FileStore(S3Settings settings, std::string prefix, std::string localFolder);

    std::unique_ptr<PendingFile> create(FileKind kind, const std::string &key) override;
    void commit(std::unique_ptr<PendingFile> file, FileKind kind, const std::string &key) override;
    std::unique_ptr<StoredFile> open(FileKind kind, const std::string &key) override;
    bool exists(FileKind kind, const std::string &key) override;
    void remove(FileKind kind, const std::string &key) override;
    std::vector<StoredEntry> list(FileKind kind) override;
    void discardAbandoned(int64_t sharedGraceSeconds) override;
    bool shared() const override { return true; }

    S3Client &client() { return m_client; }
    // The object key of a file.
    std::string objectKey(FileKind kind, const std::string &key) const;

private:
    std::string folderOf(FileKind kind) const;

    S3Client m_client;
    const std::string m_prefix; // empty, or ending in '/'
    const std::string m_tmp;
};
