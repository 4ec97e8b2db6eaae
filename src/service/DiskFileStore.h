#pragma once

#include "service/FileStore.h"

// The files in folders under the data folder: clips/, posters/, releases/, with pending files in
// tmp/ on the same file system, so that the commit is a rename.
class DiskFileStore : public FileStore
{
public:
    // Creates the folders when missing; throws FileError.
    explicit DiskFileStore(std::string dataFolder);

    std::unique_ptr<PendingFile> create(FileKind kind, const std::string &key) override;
    void commit(std::unique_ptr<PendingFile> file, FileKind kind, const std::string &key) override;
    std::unique_ptr<StoredFile> open(FileKind kind, const std::string &key) override;
    bool exists(FileKind kind, const std::string &key) override;
    void remove(FileKind kind, const std::string &key) override;
    std::vector<StoredEntry> list(FileKind kind) override;
    void discardAbandoned(int64_t sharedGraceSeconds) override;
    bool shared() const override { return false; }

private:
    std::string folder(FileKind kind) const;
    std::string pathOf(FileKind kind, const std::string &key) const;

    std::string m_root;
};
