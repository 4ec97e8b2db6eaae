#pragma once

#include "replay/ReplayBuffer.h"
#include "replay/WrittenFile.h"
#include "support/H264TestSource.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFuture>
#include <QString>
#include <QStringList>

// A replay buffer filled with real H.264 and PCM
// the way capture fills it, and ways to wait for an export's answer.
class ClipExportTest : public TempHomeTest
{
protected:
    // The capture clock starts well away from zero, as a real one does.
    static MediaTime origin() { return MediaTime::make(50, 1); }

    // Frames [first, end) of the test stream (a key frame every 120, at origin + index / 60 s).
    void storeFrames(ReplayBuffer &buffer, int64_t first, int64_t end);
    // 10 ms packets from `from` to `to` seconds on the capture clock (relative to origin).
    void storeAudio(ReplayBuffer &buffer, const PcmTestSource &source, double from, double to,
                    bool mic = false);

    QStringList recordingsFiles() const; // everything in the recordings folder, hidden or not
    QStringList tempFiles() const;

    struct Outcome
    {
        QString path; // the clip, on success
        Shortfall shortfall; // what it lacks
        QString error; // the error's text, on failure
    };
    static Outcome wait(QFuture<WrittenFile> future);
    // Starts the export of what `buffer` holds now.
    static QFuture<WrittenFile> exportOf(const ReplayBuffer &buffer);

    H264TestSource video {320, 240, 1'000'000};
};
