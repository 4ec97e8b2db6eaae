#pragma once

#include "service/ClipVetting.h"
#include "service/FileStore.h"
#include "service/RecordStore.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

// Makes the poster frames of new clips after their uploads were answered, one at a time on a
// thread of its own: an upload's answer waits for the check of its file only, and the clip's
// page shows the poster from the moment it is stored. A clip deleted meanwhile gets none, and a
// server that stops or dies first leaves its clips without one (their pages play all the same).
class PosterMaker
{
public:
    PosterMaker(RecordStore &records, FileStore &files, ClipVetting::Budget budget);
    // Stops after the poster being made; those still waiting are not made.
    ~PosterMaker();
    PosterMaker(const PosterMaker &) = delete;
    PosterMaker &operator=(const PosterMaker &) = delete;

    // Takes the clip's file, open for reading (closed when done); false, and the descriptor
    // closed, when too many wait already.
    bool add(const std::string &clipId, int fd);

private:
    struct Job
    {
        std::string clipId;
        int fd;
    };

    void run();
    void make(const Job &job);

    RecordStore &m_records;
    FileStore &m_files;
    const ClipVetting::Budget m_budget;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<Job> m_jobs; // guarded by m_mutex
    bool m_stopping = false; // guarded by m_mutex
    std::thread m_thread;
};
