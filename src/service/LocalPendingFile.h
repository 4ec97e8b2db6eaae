#pragma once

#include "service/FileStore.h"

// A pending file in a local folder (mkostemp's name): what an upload or a new release is written
// to before the store takes it. Its name goes when it is dropped; a store that keeps files on the
// same disk links it into place first, one that sends them away reads it through fd().
class LocalPendingFile : public PendingFile
{
public:
    // Throws FileError when the folder takes no new file. A `durable` file reaches the disk
    // before finish() returns; one that only passes through on its way to another store need
    // not.
    LocalPendingFile(const std::string &folder, bool durable);
    ~LocalPendingFile() override;

    void write(const char *data, size_t size) override;
    void finish() override;
    uint64_t size() const override { return m_size; }
    const std::string &path() const override { return m_path; }
    int fd() const { return m_fd; }

private:
    std::string m_path;
    const bool m_durable;
    int m_fd = -1;
    uint64_t m_size = 0;
    uint64_t m_startedWriteBack = 0;
};
