#include "core/Log.h"

#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <thread>
#include <vector>

TEST(Log, LinesFromManyThreadsStayWholeAndInOrderPerThread)
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("Vantrel.log"));
    constexpr int threads = 8, perThread = 300;
    // Long lines make a torn write likely if the writer ever split one.
    const QString padding(600, QLatin1Char('x'));
    std::vector<std::thread> writers;
    for (int t = 0; t < threads; ++t)
        writers.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i)
                Log::appendLine(path, QStringLiteral("t%1 n%2 %3").arg(t).arg(i).arg(padding));
        });
    for (auto &writer : writers)
        writer.join();

    const QStringList lines = readTextFile(path).split(QLatin1Char('\n'));
    ASSERT_EQ(lines.size(), threads * perThread + 1);
    EXPECT_TRUE(lines.last().isEmpty());
    const QRegularExpression shape(QStringLiteral(
        "^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d \\+0000 t(\\d) n(\\d+) x{600}$"));
    std::vector<int> next(threads, 0);
    for (int i = 0; i < lines.size() - 1; ++i) {
        const auto match = shape.match(lines[i]);
        ASSERT_TRUE(match.hasMatch()) << lines[i].left(80).toStdString();
        const int t = match.captured(1).toInt();
        EXPECT_EQ(match.captured(2).toInt(), next[size_t(t)]++);
    }
}

TEST(Log, MessagesAreKeptExactlyAndAnUnwritableFileIsSurvived)
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("Vantrel.log"));
    Log::appendLine(path, QStringLiteral("first"));
    Log::appendLine(path, QStringLiteral("two\nlines ünïcode"));
    const QString text = readTextFile(path);
    EXPECT_TRUE(text.endsWith(QStringLiteral(" +0000 two\nlines ünïcode\n")));
    EXPECT_EQ(text.count(QStringLiteral(" +0000 ")), 2);

    // A folder where the file should be: every line is lost, nothing crashes.
    const QString blocked = dir.filePath(QStringLiteral("blocked"));
    ASSERT_TRUE(QDir().mkpath(blocked));
    Log::appendLine(blocked, QStringLiteral("lost"));
    Log::appendLine(blocked, QStringLiteral("lost again"));
    EXPECT_TRUE(QFileInfo(blocked).isDir());
}
