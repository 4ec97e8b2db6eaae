#pragma once

#include "service/FileStore.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

typedef void CURL;

// Where the objects live and who may touch them.
struct S3Settings
{
    std::string endpoint; // https://s3.example.org (or http:// on a private network)
    std::string region = "us-east-1";
    std::string accessKey;
    std::string secretKey;
    std::string bucket;
};

// The S3 calls the file store makes, over libcurl: each request is signed by libcurl itself
// (CURLOPT_AWS_SIGV4), with the payload declared unsigned (x-amz-content-sha256) so that bodies
// stream from files, and query parameters given sorted and encoded, as that signing expects.
// Addresses are path-style (ENDPOINT/BUCKET/KEY), which every S3-compatible server answers.
// Connections are kept and reused between calls. Safe from any thread; failures throw FileError
// with what the server said.
class S3Client
{
public:
    struct Object
    {
        std::string key;
        uint64_t size = 0;
        int64_t modified = 0; // Unix seconds
    };
    struct Upload
    {
        std::string key;
        std::string uploadId;
        int64_t initiated = 0; // Unix seconds
    };

    explicit S3Client(S3Settings settings);
    ~S3Client();
    S3Client(const S3Client &) = delete;
    S3Client &operator=(const S3Client &) = delete;

    const S3Settings &settings() const { return m_settings; }

    // Size and time of an object; none when there is no such object.
    std::optional<Object> head(const std::string &key);
    // Sends `size` bytes of the open file `fd` from its start: one PUT for a small file, a
    // multipart upload of several parts at once for a large one (none of it held in memory).
    // The object appears whole when this returns, or not at all.
    void putFile(const std::string &key, int fd, uint64_t size);
    // A multipart upload step by step, for a file sent while it is still being written: parts
    // (of 5 MiB at least, but the last) may go up in any order and at once; the object appears
    // when the upload is completed with their ETags in order.
    std::string createUpload(const std::string &key);
    std::string putPart(const std::string &key, const std::string &uploadId, int number, int fd,
                        uint64_t offset, uint64_t size);
    void completeUpload(const std::string &key, const std::string &uploadId,
                        const std::vector<std::string> &etags);
    void remove(const std::string &key);
    // Every object whose key starts with `prefix`.
    std::vector<Object> list(const std::string &prefix);
    // Multipart uploads begun under `prefix` and neither completed nor aborted.
    std::vector<Upload> unfinishedUploads(const std::string &prefix);
    void abortUpload(const std::string &key, const std::string &uploadId);
    // Creates the bucket when it is missing (for the tests and a first start).
    void ensureBucket();

    // Streams a range of an object: read() returns what has come, waiting for more when none
    // has. One reader, one request; another range needs another reader.
    class Reader
    {
    public:
        ~Reader();
        // Up to `size` bytes; 0 at the end of the range, -1 when the transfer failed.
        int64_t read(char *buffer, size_t size);

    private:
        friend class S3Client;
        struct Transfer;
        explicit Reader(std::unique_ptr<Transfer> transfer);
        std::unique_ptr<Transfer> m_transfer;
    };
    std::unique_ptr<Reader> read(const std::string &key, uint64_t first, uint64_t length);

    // The address of an object key (encoded) or of the bucket with a query (given sorted).
    std::string objectUrl(const std::string &key, const std::string &query = {}) const;

private:
    struct Handle;
    std::unique_ptr<Handle> borrow();
    void giveBack(std::unique_ptr<Handle> handle);
    // Prepares a handle for a signed request to `url`.
    void prepare(CURL *curl, const std::string &url, const char *method) const;

    void putParts(const std::string &key, const std::string &uploadId, int fd, uint64_t size,
                  std::vector<std::string> &etags);

    const S3Settings m_settings;
    std::mutex m_mutex;
    std::vector<std::unique_ptr<Handle>> m_idle; // guarded by m_mutex
};
