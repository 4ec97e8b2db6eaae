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

private:
    QString m_text;
    QByteArray m_utf8;
    int m_code;
};
