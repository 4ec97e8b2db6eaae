#include "update/UpdateTestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <archive.h>
#include <archive_entry.h>
#include <httplib.h>
#include <unistd.h>

QString oldArchive()
{
    return QStringLiteral(VANTREL_TEST_RELEASES "/Vantrel-1.1.3-linux-x86_64.tar.gz");
}

QString newArchive()
{
    return QStringLiteral(VANTREL_TEST_RELEASES "/Vantrel-1.2.0-linux-x86_64.tar.gz");
}

QString publishNewRelease()
{
    QProcess add;
    add.start(qEnvironmentVariable("VANTREL_TEST_SERVICE_BIN"),
              {QStringLiteral("release"), QStringLiteral("add"), QStringLiteral("1.2.0"),
               newArchive(), QStringLiteral("--notes"), QStringLiteral("Faster saves."),
               QStringLiteral("--signature"), newArchive() + QStringLiteral(".sig"),
               QStringLiteral("--data"), qEnvironmentVariable("VANTREL_TEST_SERVICE_DATA")});
    if (!add.waitForFinished(30000))
        return QStringLiteral("vantrel-service release add did not finish");
    const QString error = QString::fromUtf8(add.readAllStandardError());
    if (add.exitStatus() == QProcess::NormalExit &&
        (add.exitCode() == 0 || error.contains(QStringLiteral("exists already"))))
        return {};
    return error.isEmpty() ? QStringLiteral("vantrel-service release add failed") : error;
}

QByteArray signatureOf(const QString &archive)
{
    QProcess openssl;
    openssl.start(QStringLiteral("openssl"),
                  {QStringLiteral("pkeyutl"), QStringLiteral("-sign"), QStringLiteral("-inkey"),
                   QStringLiteral(VANTREL_TEST_RELEASE_KEY), QStringLiteral("-rawin"),
                   QStringLiteral("-in"), archive});
    openssl.waitForFinished(30000);
    return openssl.readAllStandardOutput();
}

void writeTarGz(const QString &path, const std::vector<TarEntry> &entries)
{
    archive *out = archive_write_new();
    archive_write_add_filter_gzip(out);
    archive_write_set_format_pax_restricted(out);
    archive_write_open_filename(out, QFile::encodeName(path).constData());
    for (const TarEntry &e : entries) {
        archive_entry *entry = archive_entry_new();
        archive_entry_set_pathname(entry, e.name.toUtf8().constData());
        archive_entry_set_perm(entry, e.perm);
        switch (e.kind) {
        case TarEntry::file:
            archive_entry_set_filetype(entry, AE_IFREG);
            archive_entry_set_size(entry, e.data.size());
            break;
        case TarEntry::folder:
            archive_entry_set_filetype(entry, AE_IFDIR);
            break;
        case TarEntry::symlink:
            archive_entry_set_filetype(entry, AE_IFLNK);
            archive_entry_set_symlink(entry, e.target.toUtf8().constData());
            break;
        case TarEntry::hardlink:
            archive_entry_set_hardlink(entry, e.target.toUtf8().constData());
            break;
        }
        archive_write_header(out, entry);
        if (e.kind == TarEntry::file)
            archive_write_data(out, e.data.constData(), size_t(e.data.size()));
        archive_entry_free(entry);
    }
    archive_write_close(out);
    archive_write_free(out);
}

std::vector<TarEntry> standInRelease(const QString &version)
{
    return {{QStringLiteral("Vantrel"), TarEntry::folder, {}, {}, 0755},
            {QStringLiteral("Vantrel/bin"), TarEntry::folder, {}, {}, 0755},
            {QStringLiteral("Vantrel/bin/vantrel"),
             TarEntry::file,
             "#!/bin/sh\necho Vantrel " + version.toUtf8() + "\n",
             {},
             0755},
            {QStringLiteral("Vantrel/VERSION"), TarEntry::file, version.toUtf8() + "\n", {}, 0644}};
}

QString versionOf(const QString &root)
{
    QProcess copy;
    copy.start(root + QStringLiteral("/bin/vantrel"), {QStringLiteral("--version")});
    if (!copy.waitForFinished(30000))
        return QStringLiteral("did not answer: ") + copy.errorString();
    return QString::fromUtf8(copy.readAllStandardOutput()).trimmed();
}

QStringList entriesBeside(const QString &folder, const QString &except)
{
    QStringList names = QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot |
                                               QDir::Hidden | QDir::System);
    names.removeAll(except);
    return names;
}

ReadOnlyFolder::ReadOnlyFolder(QString folder)
    : m_folder(std::move(folder))
{
    if (geteuid() == 0) {
        m_immutable = true;
        m_ok = QProcess::execute(QStringLiteral("chattr"), {QStringLiteral("+i"), m_folder}) == 0;
    } else {
        m_ok = QFile::setPermissions(m_folder, QFile::ReadOwner | QFile::ExeOwner);
    }
}

ReadOnlyFolder::~ReadOnlyFolder()
{
    if (m_immutable)
        QProcess::execute(QStringLiteral("chattr"), {QStringLiteral("-i"), m_folder});
    else
        QFile::setPermissions(m_folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

ReleaseServer::ReleaseServer()
    : m_server(std::make_unique<httplib::Server>())
{
    m_server->Get("/v1/version", [this](const httplib::Request &, httplib::Response &response) {
        std::scoped_lock lock(m_mutex);
        ++m_hits["/v1/version"];
        response.status = m_versionStatus;
        response.set_content(m_versionBody.toStdString(), "application/json");
    });
    m_server->Get(R"(/download/(.+))",
                  [this](const httplib::Request &request, httplib::Response &response) {
                      std::function<void()> hook;
                      {
                          std::scoped_lock lock(m_mutex);
                          hook = m_onDownload;
                      }
                      if (hook)
                          hook();
                      std::scoped_lock lock(m_mutex);
                      ++m_hits[request.path];
                      if (!m_redirect.empty()) {
                          response.set_redirect(m_redirect);
                          return;
                      }
                      const auto file = m_files.find(request.matches[1].str());
                      if (file == m_files.end() || m_downloadStatus != 200) {
                          response.status = file == m_files.end() ? 404 : m_downloadStatus.load();
                          response.set_content("not here", "text/plain");
                          return;
                      }
                      response.set_content(file->second.toStdString(), "application/gzip");
                  });
    // One request per connection: a kept-alive one would hold stop() for its whole time-out.
    m_server->set_keep_alive_max_count(1);
    m_port = m_server->bind_to_any_port("127.0.0.1");
    m_thread = std::thread([this] { m_server->listen_after_bind(); });
}

ReleaseServer::~ReleaseServer()
{
    m_server->stop();
    m_thread.join();
}

QString ReleaseServer::url() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(m_port);
}

void ReleaseServer::setVersionReply(int status, const QByteArray &body)
{
    std::scoped_lock lock(m_mutex);
    m_versionStatus = status;
    m_versionBody = body;
}

void ReleaseServer::offer(const QString &version, const QString &archive,
                          const QByteArray &signature)
{
    QFile file(archive);
    file.open(QIODevice::ReadOnly);
    const QString name = QFileInfo(archive).fileName();
    const QJsonObject reply {{"version", version},
                             {"notes", "Faster saves."},
                             {"linux_url", "/download/" + name},
                             {"linux_sig", QString::fromLatin1(signature.toBase64())}};
    std::scoped_lock lock(m_mutex);
    m_files[name.toStdString()] = file.readAll();
    m_versionStatus = 200;
    m_versionBody = QJsonDocument(reply).toJson(QJsonDocument::Compact);
}

int ReleaseServer::hits(const std::string &path)
{
    std::scoped_lock lock(m_mutex);
    return m_hits[path];
}

void ReleaseServer::setOnDownload(std::function<void()> hook)
{
    std::scoped_lock lock(m_mutex);
    m_onDownload = std::move(hook);
}

void ReleaseServer::redirectDownloads(const std::string &location)
{
    std::scoped_lock lock(m_mutex);
    m_redirect = location;
}
