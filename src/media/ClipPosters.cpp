#include "media/ClipPosters.h"

#include "core/PrivateFolder.h"
#include "media/PosterFrame.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QSet>

#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// Below the capture and the encoder, like the clip export: posters may wait, frames may not.
constexpr int posterNiceness = 10;

// The cache entry's name for the file as it is now: its path, size and modification time; empty
// when the file cannot be looked at.
QString entryKey(const QString &clip)
{
    struct stat info = {};
    if (::stat(QFile::encodeName(clip).constData(), &info) != 0 || !S_ISREG(info.st_mode))
        return {};
    const QByteArray identity = QFile::encodeName(QFileInfo(clip).absoluteFilePath()) + '\n' +
        QByteArray::number(qlonglong(info.st_size)) + '\n' +
        QByteArray::number(qlonglong(info.st_mtim.tv_sec)) + '.' +
        QByteArray::number(qlonglong(info.st_mtim.tv_nsec));
    return QString::fromLatin1(
        QCryptographicHash::hash(identity, QCryptographicHash::Sha1).toHex());
}

bool writeWhole(const QString &path, const QByteArray &bytes)
{
    QSaveFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.commit();
}

// The entry's description: "seconds=12.5", "poster=1", "problem=..." lines.
std::optional<ClipPosters::Poster> readEntry(const QString &clip, const QString &meta,
                                             const QString &image)
{
    QFile file(meta);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    ClipPosters::Poster poster {clip, std::nullopt, {}, {}};
    bool hasPoster = false;
    for (const QByteArray &line : file.readAll().split('\n')) {
        const qsizetype equals = line.indexOf('=');
        const QByteArray name = line.left(equals), value = line.mid(equals + 1);
        bool ok = false;
        if (name == "seconds") {
            const double seconds = value.toDouble(&ok);
            if (ok && seconds >= 0)
                poster.seconds = seconds;
        } else if (name == "poster") {
            hasPoster = value == "1";
        } else if (name == "problem") {
            poster.problem = QString::fromUtf8(value);
        }
    }
    if (hasPoster) {
        // An entry whose picture went missing is made again.
        if (!QFile::exists(image))
            return std::nullopt;
        poster.image = image;
    }
    return poster;
}

void lowerThisThread()
{
    setpriority(PRIO_PROCESS, pid_t(syscall(SYS_gettid)), posterNiceness);
}

} // namespace

ClipPosters::ClipPosters(QObject *parent)
    : ClipPosters(defaultCacheFolder(), 2, parent)
{
}

ClipPosters::ClipPosters(const QString &cacheFolder, int threads, QObject *parent)
    : QObject(parent)
    , m_cacheFolder(cacheFolder)
    , m_threadCount(std::max(1, threads))
{
    qRegisterMetaType<ClipPosters::Poster>();
    if (!m_cacheFolder.isEmpty())
        QDir().mkpath(m_cacheFolder);
    connect(this, &ClipPosters::made, this, &ClipPosters::answer, Qt::QueuedConnection);
}

ClipPosters::~ClipPosters()
{
    {
        std::scoped_lock lock(m_jobsLock);
        m_jobs.clear();
        m_stopping = true;
    }
    m_jobsChanged.notify_all();
    for (std::thread &thread : m_threads)
        thread.join();
    cancelPending();
}

void ClipPosters::queue(std::function<void()> job)
{
    {
        std::scoped_lock lock(m_jobsLock);
        m_jobs.push_back(std::move(job));
    }
    m_jobsChanged.notify_one();
    if (m_threads.empty()) {
        for (int i = 0; i < m_threadCount; ++i)
            m_threads.emplace_back([this] { work(); });
    }
}

void ClipPosters::work()
{
    pthread_setname_np(pthread_self(), "vt-poster");
    lowerThisThread();
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock lock(m_jobsLock);
            m_jobsChanged.wait(lock, [&] { return m_stopping || !m_jobs.empty(); });
            if (m_stopping)
                return;
            job = std::move(m_jobs.front());
            m_jobs.pop_front();
        }
        job();
    }
}

QString ClipPosters::defaultCacheFolder()
{
    const QString vantrel =
        PrivateFolder::ensure(PrivateFolder::cacheBase() + QStringLiteral("/Vantrel"));
    return vantrel.isEmpty() ? QString()
                             : PrivateFolder::ensure(vantrel + QStringLiteral("/posters"));
}

ClipPosters::Poster ClipPosters::make(const QString &clip, const QString &cacheFolder)
{
    const QString key = entryKey(clip);
    if (key.isEmpty())
        return {clip, std::nullopt, {}, QStringLiteral("it is not there")};
    if (cacheFolder.isEmpty())
        return {clip, std::nullopt, {}, QStringLiteral("no folder to keep posters in")};
    const QDir folder(cacheFolder);
    const QString meta = folder.filePath(key + QStringLiteral(".meta"));
    const QString image = folder.filePath(key + QStringLiteral(".jpg"));
    if (std::optional<Poster> kept = readEntry(clip, meta, image))
        return *kept;

    const PosterFrame::Read read = PosterFrame::read(clip);
    Poster poster {clip, read.seconds, {}, read.problem};
    QByteArray description;
    if (read.seconds)
        description += "seconds=" + QByteArray::number(*read.seconds, 'f', 6) + '\n';
    if (!read.jpeg.isEmpty()) {
        if (!writeWhole(image, read.jpeg)) {
            poster.problem = QStringLiteral("cannot write into %1").arg(cacheFolder);
            return poster;
        }
        poster.image = image;
        description += "poster=1\n";
    } else {
        description += "poster=0\nproblem=" + read.problem.toUtf8().replace('\n', ' ') + '\n';
    }
    // The description goes last: an entry without one is made again.
    writeWhole(meta, description);
    return poster;
}

void ClipPosters::request(const QString &clip)
{
    if (m_pending.contains(clip))
        return;
    m_pending.insert(clip, {});
    queue(
        [this, clip, folder = m_cacheFolder] { emit made(make(clip, folder), QPrivateSignal()); });
}

QFuture<ClipPosters::Poster> ClipPosters::poster(const QString &clip)
{
    auto promise = std::make_shared<QPromise<Poster>>();
    promise->start();
    QFuture<Poster> future = promise->future();
    request(clip);
    m_pending[clip].push_back(std::move(promise));
    return future;
}

void ClipPosters::answer(const Poster &poster)
{
    // A request dropped by cancelPending whose work had already begun: nobody waits for it.
    const auto pending = m_pending.find(poster.clip);
    if (pending == m_pending.end())
        return;
    const std::vector<std::shared_ptr<QPromise<Poster>>> promises = std::move(pending.value());
    m_pending.erase(pending);
    emit posterReady(poster);
    for (const auto &promise : promises) {
        promise->addResult(poster);
        promise->finish();
    }
}

void ClipPosters::cancelPending()
{
    {
        std::scoped_lock lock(m_jobsLock);
        m_jobs.clear();
    }
    const auto pending = std::exchange(m_pending, {});
    for (const auto &promises : pending) {
        for (const auto &promise : promises) {
            promise->future().cancel();
            promise->finish();
        }
    }
}

void ClipPosters::pruneCache(const QStringList &clips)
{
    if (m_cacheFolder.isEmpty())
        return;
    queue([clips, folder = m_cacheFolder] {
        QSet<QString> live;
        for (const QString &clip : clips)
            live.insert(entryKey(clip));
        const QDir dir(folder);
        for (const QString &name :
             dir.entryList({QStringLiteral("*.meta"), QStringLiteral("*.jpg")}, QDir::Files)) {
            if (!live.contains(name.section(QLatin1Char('.'), 0, 0)))
                QFile::remove(dir.filePath(name));
        }
    });
}
