#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// Where the service keeps its files: clips, their poster frames and release archives, each known
// by a key the service makes (never a name a client sent). A new file is written to a pending
// place first and becomes visible under its key in one atomic step, so a reader never sees half a
// file. DiskFileStore keeps them in folders on one machine; an S3-compatible object store can
// take its place behind the same calls (a pending file is a local file either way, which is also
// where the upload check reads it).

enum class FileKind { clip, poster, release };

class FileError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// A file being written. Removed when dropped without being committed.
class PendingFile
{
public:
    virtual ~PendingFile() = default;
    // Appends bytes; throws FileError (a full disk, say).
    virtual void write(const char *data, size_t size) = 0;
    // Flushes what was written to the disk; throws FileError.
    virtual void finish() = 0;
    virtual uint64_t size() const = 0;
    // The local file, for reading back before the commit.
    virtual const std::string &path() const = 0;
};

// A stored file opened for reading; reads may come from several threads.
class StoredFile
{
public:
    virtual ~StoredFile() = default;
    virtual uint64_t size() const = 0;
    // Reads up to `size` bytes at `offset`; returns how many, 0 at the end, -1 on an error.
    virtual int64_t read(uint64_t offset, char *buffer, size_t size) const = 0;
};

class FileStore
{
public:
    virtual ~FileStore() = default;

    virtual std::unique_ptr<PendingFile> create(FileKind kind) = 0;
    // Makes the pending file visible under `key`, replacing nothing: throws FileError when it
    // cannot be moved into place.
    virtual void commit(std::unique_ptr<PendingFile> file, FileKind kind,
                        const std::string &key) = 0;
    virtual std::unique_ptr<StoredFile> open(FileKind kind, const std::string &key) = 0;
    virtual bool exists(FileKind kind, const std::string &key) = 0;
    virtual void remove(FileKind kind, const std::string &key) = 0;
    virtual std::vector<std::string> keys(FileKind kind) = 0;
    // Seconds since the file was stored.
    virtual int64_t ageSeconds(FileKind kind, const std::string &key) = 0;
    // Forgets pending files left by a process that died while writing them.
    virtual void discardAbandoned() = 0;
};
