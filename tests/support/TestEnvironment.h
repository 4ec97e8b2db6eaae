#pragma once

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

// Gives the test a home of its own: HOME, XDG_CONFIG_HOME, XDG_STATE_HOME, TMPDIR and the videos
// folder all point into a fresh temporary folder that is removed afterwards. Every test case runs
// in a process of its own (ctest), so the program's once-per-process paths see this home.
class TempHomeTest : public ::testing::Test
{
protected:
    void SetUp() override;

    QString home() const { return m_home.path(); }
    QString configHome() const { return m_home.filePath(QStringLiteral(".config")); }
    QString stateHome() const { return m_home.filePath(QStringLiteral(".local/state")); }
    // TMPDIR of the test.
    QString tempFolder() const { return m_home.filePath(QStringLiteral("tmp")); }

private:
    QTemporaryDir m_home;
};

// Reads a whole file as text; empty when it cannot be read.
QString readTextFile(const QString &path);

// The files below `folder` whose bytes contain `secret` (a token that must not be on disk).
QStringList filesHolding(const QString &folder, const QByteArray &secret);
