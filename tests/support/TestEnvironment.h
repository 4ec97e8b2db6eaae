#pragma once

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <ostream>
#include <string>

// GoogleTest prints Qt's strings as text.
inline void PrintTo(const QString &text, std::ostream *out)
{
    *out << '"' << text.toStdString() << '"';
}

// Gives the test a home of its own: HOME, the XDG config, state, data and cache folders, TMPDIR
// and the videos folder all point into a fresh temporary folder that is removed afterwards. Every
// test case runs in a process of its own (ctest), so the program's once-per-process paths see
// this home.
class TempHomeTest : public ::testing::Test
{
protected:
    void SetUp() override;
    // Takes another test's home instead of a fresh one (a child process carrying on its test).
    void useHome(const QString &path);
    // A runtime folder of the home's own (the program's single-instance socket lives there).
    void usePrivateRuntime();
    // The program's settings file: "[General]\n" and `lines`.
    void writeSettings(const QByteArray &lines);

    QString home() const { return m_path; }
    QString configHome() const { return m_path + QStringLiteral("/.config"); }
    QString stateHome() const { return m_path + QStringLiteral("/.local/state"); }
    // TMPDIR of the test.
    QString tempFolder() const { return m_path + QStringLiteral("/tmp"); }

private:
    QTemporaryDir m_home;
    QString m_path;
};

// Reads a whole file as text; empty when it cannot be read.
QString readTextFile(const QString &path);

// A tmpfs of the given mount options ("size=64k") at `path`, for as long as the object lives:
// a temporary folder on a file system of its own, or a full disk. Mounting needs privileges a
// test may not have; mounted() says whether it worked, error() why not.
class TemporaryMount
{
public:
    TemporaryMount(const QString &path, const char *options);
    ~TemporaryMount();
    TemporaryMount(const TemporaryMount &) = delete;
    TemporaryMount &operator=(const TemporaryMount &) = delete;

    bool mounted() const { return m_mounted; }
    const std::string &error() const { return m_error; }

private:
    QByteArray m_path;
    bool m_mounted = false;
    std::string m_error;
};

// The files below `folder` whose bytes contain `secret` (a token that must not be on disk).
QStringList filesHolding(const QString &folder, const QByteArray &secret);
