#include "ClipExportSupport.h"

#include "core/Paths.h"
#include "media/RecorderError.h"
#include "replay/ClipExport.h"

#include <QFile>

#include <cmath>
#include <cstdlib>

void ClipExportTest::storeFrames(ReplayBuffer &buffer, int64_t first, int64_t end)
{
    for (int64_t i = first; i < end; ++i) {
        ReplayBuffer::EncodedFrame frame = video.frame(i, origin());
        const bool key = frame.isKey;
        buffer.appendVideo(std::move(frame), key ? video.format() : nullptr);
    }
}

void ClipExportTest::storeAudio(ReplayBuffer &buffer, const PcmTestSource &source, double from,
                                double to, bool mic)
{
    for (int64_t p = std::llround(from * 100); p < std::llround(to * 100); ++p) {
        const AudioSampleBuffer sample = source.sampleBuffer(p, origin());
        mic ? buffer.appendMic(sample) : buffer.appendAudio(sample);
    }
}

QStringList ClipExportTest::recordingsFiles() const
{
    return QDir(Paths::recordings()).entryList(QDir::Files | QDir::Hidden);
}

QStringList ClipExportTest::tempFiles() const
{
    return QDir(QDir::tempPath()).entryList(QDir::Files | QDir::Hidden);
}

ClipExportTest::Outcome ClipExportTest::wait(QFuture<WrittenFile> future)
{
    try {
        // Both the wait and the result throw the export's error.
        future.waitForFinished();
        const WrittenFile clip = future.result();
        return {clip.path, clip.shortfall, {}};
    } catch (const RecorderError &error) {
        return {{}, {}, error.text()};
    }
}

QFuture<WrittenFile> ClipExportTest::exportOf(const ReplayBuffer &buffer)
{
    return ClipExport::exportClip(buffer.snapshot());
}
