#include "service/S3PendingFile.h"

namespace {

// The S3 least for a part but the last is 5 MiB.
constexpr uint64_t partBytes = 8 << 20;
constexpr int senders = 2;

} // namespace

S3PendingFile::S3PendingFile(S3Client &client, const std::string &folder, std::string objectKey)
    // The bucket keeps the file safe; the local copy only passes through, unflushed.
    : m_local(folder, false)
    , m_client(client)
    , m_key(std::move(objectKey))
{
}

S3PendingFile::~S3PendingFile()
{
    stopSending();
    if (!m_uploadId.empty() && !m_completed) {
        try {
            m_client.abortUpload(m_key, m_uploadId);
        } catch (const FileError &) {
            // Swept at a later start.
        }
    }
}

void S3PendingFile::write(const char *data, size_t size)
{
    m_local.write(data, size);
    while (m_local.size() - m_queuedBytes >= partBytes)
        queue(partBytes);
}

void S3PendingFile::finish()
{
    m_local.finish();
}

void S3PendingFile::queue(uint64_t size)
{
    if (m_uploadId.empty()) {
        m_uploadId = m_client.createUpload(m_key);
        for (int i = 0; i < senders; ++i)
            m_senders.emplace_back([this] { sendParts(); });
    }
    {
        std::scoped_lock lock(m_mutex);
        m_waiting.push_back({++m_parts, m_queuedBytes, size});
        m_etags.resize(size_t(m_parts));
    }
    m_queuedBytes += size;
    m_changed.notify_one();
}

void S3PendingFile::sendParts()
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [&] { return m_closing || !m_waiting.empty(); });
        if (m_waiting.empty())
            return;
        const Part part = m_waiting.front();
        m_waiting.pop_front();
        if (!m_failure.empty())
            continue;
        ++m_sending;
        lock.unlock();
        std::string etag, failure;
        try {
            etag = m_client.putPart(m_key, m_uploadId, part.number, m_local.fd(), part.offset,
                                    part.size);
        } catch (const FileError &e) {
            failure = e.what();
        }
        lock.lock();
        --m_sending;
        m_etags[size_t(part.number - 1)] = etag;
        if (!failure.empty() && m_failure.empty())
            m_failure = failure;
        m_changed.notify_all();
    }
}

void S3PendingFile::stopSending()
{
    {
        std::scoped_lock lock(m_mutex);
        m_closing = true;
        if (!m_completed)
            m_waiting.clear();
    }
    m_changed.notify_all();
    for (std::thread &sender : m_senders)
        sender.join();
    m_senders.clear();
}

void S3PendingFile::send()
{
    if (m_parts == 0) {
        m_client.putFile(m_key, m_local.fd(), m_local.size());
        m_completed = true;
        return;
    }
    if (m_local.size() > m_queuedBytes)
        queue(m_local.size() - m_queuedBytes);
    std::vector<std::string> etags;
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_waiting.empty() && m_sending == 0; });
        if (!m_failure.empty())
            throw FileError(m_failure);
        etags = m_etags;
    }
    stopSending();
    m_client.completeUpload(m_key, m_uploadId, etags);
    m_completed = true;
}
