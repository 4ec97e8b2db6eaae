#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

// Where the service keeps its files: clips, their poster frames and release archives, each known
// by a key the service makes (never a name a client sent). A new file is written to a pending
// place first and becomes visible under its key in one atomic step, so a reader never sees half a
// file. DiskFileStore keeps them in folders on one machine, S3FileStore as objects in an
// S3-compatible bucket that several servers share (a pending file is a local file either way,
// which is also where the upload check reads it).

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
    // Says that the reads to come take `length` bytes from `first` on, in order: a store that
    // fetches over the network asks for them in one request.
    virtual void willRead(uint64_t first, uint64_t length) const
    {
        (void)first;
        (void)length;
    }
};

struct StoredEntry
{
    std::string key;
    int64_t ageSeconds = 0; // since it was stored
};

class FileStore
{
public:
    virtual ~FileStore() = default;

    // A new pending file, to be committed under `key` (a store that sends files away may start
    // sending while it is written).
    virtual std::unique_ptr<PendingFile> create(FileKind kind, const std::string &key) = 0;
    // Makes the pending file visible under `key`, replacing nothing: throws FileError when it
    // cannot be moved into place.
    virtual void commit(std::unique_ptr<PendingFile> file, FileKind kind,
                        const std::string &key) = 0;
    virtual std::unique_ptr<StoredFile> open(FileKind kind, const std::string &key) = 0;
    virtual bool exists(FileKind kind, const std::string &key) = 0;
    virtual void remove(FileKind kind, const std::string &key) = 0;
    virtual std::vector<StoredEntry> list(FileKind kind) = 0;
    // Forgets pending files left by a process that died while writing them (on a store that
    // other servers share, only those older than `sharedGraceSeconds`).
    virtual void discardAbandoned(int64_t sharedGraceSeconds) = 0;
    // True when other processes may be writing to the store at the same time.
    virtual bool shared() const = 0;

    // Keys are made by the service itself; this refuses anything that could leave the store's
    // folder (or prefix) all the same. Throws FileError.
    static void checkKey(const std::string &key);
    // The folder (or prefix) a kind of file is kept in: "clips", "posters", "releases".
    static const char *folderName(FileKind kind);
};
