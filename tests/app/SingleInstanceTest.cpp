// Another user of the machine listens where Vantrel's single-instance socket used to fall back
// to, in the shared temporary folder, to receive the links (sign-in codes among them) that a
// later launch hands over. The socket now only lives in a folder no one else can enter.

#include "app/SingleInstance.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocalServer>
#include <QSignalSpy>
#include <QTest>

#include <atomic>
#include <cstdlib>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

class LeakThroughTmp : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        unsetenv("XDG_CACHE_HOME");
    }

    // A later launch, handing `links` over from a thread of its own: it waits for the first
    // instance to read them, which takes this thread's event loop.
    bool handOver(const QStringList &links)
    {
        std::atomic<bool> finished {false};
        bool handed = false;
        std::thread later([&] {
            SingleInstance instance(SingleInstance::defaultName());
            handed = instance.handOffToRunningInstance(links);
            finished = true;
        });
        EXPECT_TRUE(QTest::qWaitFor([&finished] { return finished.load(); }, 10000));
        later.join();
        return handed;
    }

    // Where a planted socket used to catch the links: the shared temporary folder.
    QString plantedName() const
    {
        return QDir::tempPath() + QStringLiteral("/vantrel-%1").arg(::getuid());
    }
};

// "mode owner": the folder holding `path` as the test reads it.
QString folderOf(const QString &path)
{
    struct stat info
    {
    };
    const QByteArray folder = QFile::encodeName(QFileInfo(path).absolutePath());
    if (::lstat(folder.constData(), &info) != 0)
        return QStringLiteral("missing");
    return QStringLiteral("%1 %2")
        .arg(info.st_mode & 0777, 0, 8)
        .arg(info.st_uid == ::geteuid() ? QStringLiteral("ours") : QStringLiteral("not ours"));
}

} // namespace

TEST_F(LeakThroughTmp, ASocketPlantedInTheTemporaryFolderNeverHearsALink)
{
    // A runtime folder others can enter is no private one either.
    const QString shared = home() + QStringLiteral("/shared-run");
    QDir().mkpath(shared);
    ::chmod(QFile::encodeName(shared).constData(), 0777);
    for (const char *runtime : {static_cast<const char *>(nullptr), "shared"}) {
        SCOPED_TRACE(runtime ? runtime : "no runtime folder");
        if (runtime)
            qputenv("XDG_RUNTIME_DIR", shared.toUtf8());
        else
            unsetenv("XDG_RUNTIME_DIR");

        QLocalServer planted;
        QLocalServer::removeServer(plantedName());
        ASSERT_TRUE(planted.listen(plantedName()));

        SingleInstance first(SingleInstance::defaultName());
        ASSERT_FALSE(first.handOffToRunningInstance({QStringLiteral("vantrel://start")}))
            << "the first launch handed its links to whoever listened first";
        const QString name = SingleInstance::defaultName();
        EXPECT_FALSE(name.startsWith(QDir::tempPath())) << name.toStdString();
        EXPECT_FALSE(name.startsWith(shared)) << name.toStdString();
        EXPECT_EQ(folderOf(name), QStringLiteral("700 ours")) << name.toStdString();

        QSignalSpy received(&first, &SingleInstance::argumentsReceived);
        EXPECT_TRUE(handOver({QStringLiteral("vantrel://auth?code=SECRET")}));
        ASSERT_EQ(received.size(), 1);
        EXPECT_EQ(received[0][0].toStringList(), QStringList({"vantrel://auth?code=SECRET"}));
        QTest::qWait(50);
        EXPECT_FALSE(planted.hasPendingConnections());
    }
}
