#pragma once

#include <QByteArray>
#include <QString>

#include <exception>

// An install's own failure: the sentence the user reads, and a code (the HTTP status for a
// refused download, 1 otherwise). Failures of the system (a transport error, a rename the file
// system refuses) also arrive as UpdateError, carrying the system's own description.
class UpdateError : public std::exception
{
public:
    explicit UpdateError(QString text, int code = 1);

    const QString &text() const { return m_text; }
    int code() const { return m_code; }
    const char *what() const noexcept override { return m_utf8.constData(); }

    static QString cannotDownload();
    static QString cannotVerify();
    static QString cannotOpenArchive();
    static QString noAppInside();
    static QString notInstalledCopy();
    static QString installedByPackage();
    // An archive offered at an address that is neither https nor on this machine.
    static QString insecureAddress(const QString &address);
    static QString tooLarge();
    // The signed archive's own VERSION decides, never the service's word: it must be newer than
    // the copy it replaces, and the version the update was offered as.
    static QString unknownVersion();
    static QString notNewer(const QString &found, const QString &installed);
    static QString notAsOffered(const QString &offered, const QString &found);

private:
    QString m_text;
    QByteArray m_utf8;
    int m_code;
};
