#pragma once

#include "support/TestEnvironment.h"
#include "update/InstalledCopy.h"
#include "update/UpdateTestSupport.h"

#include <QDir>

#include <cstdlib>

// The store in this process against a small server of the test's own; the installed copy is a
// copy of the old release in the test's home. Every case runs in a process of its own, so the
// service address read once per process is this server's.
class UpdateStoreFixture : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        unsetenv("XDG_CACHE_HOME");
        qputenv("VANTREL_SERVICE_URL", server.url().toUtf8());
        parent = home() + QStringLiteral("/opt");
        root = parent + QStringLiteral("/Vantrel");
        InstalledCopy::installFrom(oldArchive(), root);
    }

    // Where downloads go, each in a private folder of its own.
    QString downloads() const { return home() + QStringLiteral("/.cache/Vantrel/updates"); }

    // What is left of downloads: there, or under the old fixed name in the temporary folder.
    QStringList downloadsLeft() const
    {
        return QDir(downloads()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot) +
            QDir(tempFolder()).entryList({QStringLiteral("Vantrel-update*")}, QDir::Files);
    }

    ReleaseServer server;
    QString parent;
    QString root;
};
