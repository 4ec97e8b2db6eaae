#pragma once

#include <QFuture>
#include <QHash>
#include <QObject>
#include <QPromise>
#include <QString>
#include <QStringList>

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

// Posters and durations for the clips of the library, made off the caller's thread and kept in
// a cache (a private folder under $XDG_CACHE_HOME/Vantrel/posters) keyed by the file's identity:
// its path, size and modification time, so a clip that changes gets a new poster and one that
// does not is never decoded twice. A damaged file is answered too, without a poster, and that
// answer is kept like the others.
//
// The owner's thread (the main thread for the library) only queues requests and receives the
// answers; the cache is looked up, and posters made, on threads of this object's own ("vt-poster"),
// at a lower priority than the capture, in the order asked. Asking for the rows of a library of
// hundreds of clips costs the owner's thread microseconds each, and the rows fill in as the
// answers come. (Not the shared task pool: hundreds of posters there would hold up a save.)
class ClipPosters : public QObject
{
    Q_OBJECT

public:
    struct Poster
    {
        QString clip; // as asked for
        std::optional<double> seconds; // the clip's duration, when it could be read
        QString image; // the poster's JPEG in the cache; empty when there is none
        QString problem; // why there is no poster, in a few words (for the log)

        bool hasPoster() const { return !image.isEmpty(); }
    };

    // The cache in the user's cache folder, two threads.
    explicit ClipPosters(QObject *parent = nullptr);
    ClipPosters(const QString &cacheFolder, int threads, QObject *parent = nullptr);
    // Drops the requests not yet started and waits for the ones running (one decode each).
    ~ClipPosters() override;

    // Asks for the poster and duration of `clip`; posterReady answers on the owner's thread,
    // once for any number of requests of a clip still pending.
    void request(const QString &clip);
    // The same, answered through a future. The answer comes through the owner's event loop: the
    // owner's thread co_awaits it and never blocks on it.
    QFuture<Poster> poster(const QString &clip);
    // Drops the requests not yet started (the library was refreshed or hidden); their futures
    // are cancelled.
    void cancelPending();
    // Removes, off the owner's thread, what the cache holds for files not among `clips` (deleted
    // or changed since).
    void pruneCache(const QStringList &clips);

    QString cacheFolder() const { return m_cacheFolder; }

    // The work of one request, on the calling thread: the cache entry for the file as it is now,
    // made first when there is none. For tests and benchmarks.
    static Poster make(const QString &clip, const QString &cacheFolder);
    // The cache folder in the user's cache folder (made 0700); empty when it cannot be trusted.
    static QString defaultCacheFolder();

signals:
    void posterReady(const ClipPosters::Poster &poster);
    // From a worker to the owner's thread; the queued signal carries the answer.
    void made(const ClipPosters::Poster &poster, QPrivateSignal);

private:
    void answer(const Poster &poster);
    void queue(std::function<void()> job);
    void work();

    const QString m_cacheFolder;
    const int m_threadCount;
    // Owner's thread only: the clips asked for and not yet answered, with their futures.
    QHash<QString, std::vector<std::shared_ptr<QPromise<Poster>>>> m_pending;
    std::vector<std::thread> m_threads; // started with the first job; owner's thread only

    // m_jobsLock guards the jobs not yet started and the stop flag.
    std::mutex m_jobsLock;
    std::condition_variable m_jobsChanged;
    std::deque<std::function<void()>> m_jobs;
    bool m_stopping = false;
};

Q_DECLARE_METATYPE(ClipPosters::Poster)
