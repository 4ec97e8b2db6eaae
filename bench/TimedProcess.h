#pragma once

#include "BenchSupport.h"

#include <QFile>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <cstdio>

namespace bench {

// Runs ffmpeg with `arguments` to its end and answers how long it took, in seconds; removes `out`
// (what it wrote) afterwards. A failure is reported on standard error.
inline double timedFfmpeg(const QStringList &arguments, const QString &out)
{
    const auto start = std::chrono::steady_clock::now();
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"), arguments);
    ffmpeg.waitForFinished(600'000);
    const double elapsed = secondsSince(start);
    if (ffmpeg.exitCode() != 0)
        std::fprintf(stderr, "ffmpeg failed: %s\n", ffmpeg.readAllStandardError().constData());
    if (!out.isEmpty())
        QFile::remove(out);
    return elapsed;
}

} // namespace bench
