#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace httplib {
class Server;
}

// The releases fixture: this build's program packaged as 1.1.3 and as 1.2.0, each with its .sig.
QString oldArchive();
QString newArchive();

// Publishes the newer release (newArchive(), as 1.2.0) on the "service" fixture's vantrel-service,
// as its operator would. The service is shared by the tests, so a release another test published
// counts. Returns why it failed, or empty.
QString publishNewRelease();

// The archive's Ed25519 signature by the build's own release key, made with openssl.
QByteArray signatureOf(const QString &archive);

// One entry of a hand-made archive.
struct TarEntry
{
    enum Kind { file, folder, symlink, hardlink };
    TarEntry(QString name, Kind kind = file, QByteArray data = {}, QString target = {},
             int perm = 0644)
        : name(std::move(name))
        , kind(kind)
        , data(std::move(data))
        , target(std::move(target))
        , perm(perm)
    {
    }
    QString name;
    Kind kind;
    QByteArray data; // a file's contents
    QString target; // a link's target
    int perm;
};
// Writes a gzip-compressed tar of `entries`, in order, names exactly as given.
void writeTarGz(const QString &path, const std::vector<TarEntry> &entries);
// A stand-in release: Vantrel/bin/vantrel as a small executable script printing `version`.
std::vector<TarEntry> standInRelease(const QString &version);

// What the copy at `root` answers to --version ("Vantrel 1.1.3"), or why it could not.
QString versionOf(const QString &root);
// The entries of `folder` other than `except`, hidden ones included.
QStringList entriesBeside(const QString &folder, const QString &except);

// Makes `folder` refuse new entries and renames even for root (the immutable attribute; a
// permission change for anyone else) and undoes it on destruction. `ok` is false where the file
// system has no such attribute.
class ReadOnlyFolder
{
public:
    explicit ReadOnlyFolder(QString folder);
    ~ReadOnlyFolder();
    bool ok() const { return m_ok; }

private:
    QString m_folder;
    bool m_ok = false;
    bool m_immutable = false;
};

// A small HTTP server on 127.0.0.1 standing in for the service's version check and download:
// GET /v1/version answers `versionReply`, GET /download/NAME the file registered under NAME
// (404 otherwise). Counts the requests per path.
class ReleaseServer
{
public:
    ReleaseServer();
    ~ReleaseServer();

    QString url() const;
    void setVersionReply(int status, const QByteArray &body);
    // Offers `archive` as release `version`, signed with `signature` (base64 in the reply).
    void offer(const QString &version, const QString &archive, const QByteArray &signature);
    void setDownloadStatus(int status) { m_downloadStatus = status; }
    int hits(const std::string &path);
    // Runs `hook` on the server's thread when a download is asked for, before it is answered:
    // the client has made its file by then.
    void setOnDownload(std::function<void()> hook);
    // Answers every download with a redirect to `location` (none when empty).
    void redirectDownloads(const std::string &location);

private:
    std::unique_ptr<httplib::Server> m_server;
    std::thread m_thread;
    int m_port = 0;
    std::mutex m_mutex; // guards everything below but m_downloadStatus
    int m_versionStatus = 404;
    QByteArray m_versionBody;
    std::map<std::string, QByteArray> m_files;
    std::map<std::string, int> m_hits;
    std::atomic<int> m_downloadStatus {200};
    std::function<void()> m_onDownload;
    std::string m_redirect;
};
