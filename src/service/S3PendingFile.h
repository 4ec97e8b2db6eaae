#pragma once

#include "service/LocalPendingFile.h"
#include "service/S3Client.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A file on its way into the bucket, sent while it is still being written: every 8 MiB that
// arrive go up as a part of a multipart upload, on two threads of its own, from the local copy
// (which the upload check reads too). The commit sends what is left and completes the upload,
// so a large upload's answer waits for its last part only. A file smaller than a part goes up
// in one PUT at the commit. Dropped without a commit, it aborts its upload; a crash leaves the
// parts for the next start's sweep.
class S3PendingFile : public PendingFile
{
public:
    S3PendingFile(S3Client &client, const std::string &folder, std::string objectKey);
    ~S3PendingFile() override;

    // From the thread that writes the file.
    void write(const char *data, size_t size) override;
    void finish() override;
    uint64_t size() const override { return m_local.size(); }
    const std::string &path() const override { return m_local.path(); }
    const std::string &objectKey() const { return m_key; }
    // Sends the rest and makes the object appear; throws FileError.
    void send();

private:
    struct Part
    {
        int number;
        uint64_t offset;
        uint64_t size;
    };

    void queue(uint64_t size);
    void sendParts();
    void stopSending();

    LocalPendingFile m_local;
    S3Client &m_client;
    const std::string m_key;
    // The writing thread's own.
    std::string m_uploadId;
    uint64_t m_queuedBytes = 0;
    int m_parts = 0;
    bool m_completed = false;
    std::vector<std::thread> m_senders;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Part> m_waiting; // guarded by m_mutex
    int m_sending = 0; // guarded by m_mutex: parts being sent
    std::vector<std::string> m_etags; // guarded by m_mutex, by part number - 1
    std::string m_failure; // guarded by m_mutex
    bool m_closing = false; // guarded by m_mutex
};
