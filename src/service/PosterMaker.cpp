#include "service/PosterMaker.h"

#include "service/ServiceLog.h"

#include <unistd.h>

namespace {

// Each waiting job holds a descriptor and a local file's space; past this, clips go without.
constexpr size_t maxWaiting = 256;

} // namespace

PosterMaker::PosterMaker(RecordStore &records, FileStore &files, ClipVetting::Budget budget)
    : m_records(records)
    , m_files(files)
    , m_budget(budget)
    , m_thread([this] { run(); })
{
}

PosterMaker::~PosterMaker()
{
    {
        std::scoped_lock lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    m_thread.join();
    for (const Job &job : m_jobs)
        ::close(job.fd);
}

bool PosterMaker::add(const std::string &clipId, int fd)
{
    {
        std::scoped_lock lock(m_mutex);
        if (!m_stopping && m_jobs.size() < maxWaiting) {
            m_jobs.push_back({clipId, fd});
            m_wake.notify_one();
            return true;
        }
    }
    ::close(fd);
    return false;
}

void PosterMaker::run()
{
    for (;;) {
        Job job;
        {
            std::unique_lock lock(m_mutex);
            m_wake.wait(lock, [&] { return m_stopping || !m_jobs.empty(); });
            if (m_stopping)
                return;
            job = m_jobs.front();
            m_jobs.pop_front();
        }
        try {
            make(job);
        } catch (const std::exception &e) {
            ServiceLog::line("vantrel-service: the poster of " + job.clipId +
                             " could not be stored: " + e.what());
        }
        ::close(job.fd);
    }
}

void PosterMaker::make(const Job &job)
{
    if (!m_records.clip(job.clipId))
        return;
    const std::optional<std::string> jpeg = ClipVetting::makePoster(job.fd, m_budget);
    if (!jpeg)
        return;
    const std::string key = job.clipId + ".jpg";
    std::unique_ptr<PendingFile> poster = m_files.create(FileKind::poster, key);
    poster->write(jpeg->data(), jpeg->size());
    poster->finish();
    m_files.commit(std::move(poster), FileKind::poster, key);
    m_records.setClipPoster(job.clipId);
    // Deleted while its poster was being made: the deletion may have come before the poster
    // was stored, and so missed it.
    if (!m_records.clip(job.clipId))
        m_files.remove(FileKind::poster, key);
}
