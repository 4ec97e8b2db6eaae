#include "ClipExportSupport.h"

#include "support/MediaProbe.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace {

// Capture goes on storing frames and audio on its own thread while clips are saved from the
// same buffer: every clip is whole, and capture is never held up by the saves.
TEST_F(ClipExportTest, ExportsWhileCaptureKeepsAppending)
{
    ReplayBuffer buffer;
    storeFrames(buffer, 0, 240);
    storeAudio(buffer, PcmTestSource {}, 0, 4);

    std::atomic<bool> stop {false};
    std::atomic<int64_t> stored {0};
    std::thread capture([&] {
        const PcmTestSource tone;
        int64_t packet = 400;
        for (int64_t f = 240; !stop; ++f) {
            ReplayBuffer::EncodedFrame frame = video.frame(f, origin());
            const bool key = frame.isKey;
            buffer.appendVideo(std::move(frame), key ? video.format() : nullptr);
            for (; packet * 60 < (f + 1) * 100; ++packet)
                buffer.appendAudio(tone.sampleBuffer(packet, origin()));
            ++stored;
            // Several times real time: the buffer fills up quickly but the machine stays usable.
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });

    QStringList clips;
    for (int save = 0; save < 3; ++save) {
        const int64_t before = stored;
        const Outcome outcome = wait(exportOf(buffer));
        ASSERT_EQ(outcome.error, QString());
        EXPECT_GT(stored - before, 0) << "capture stalled during save " << save;
        clips << outcome.path;
    }
    stop = true;
    capture.join();

    // The files are looked at only now: under ThreadSanitizer, a process that has started a
    // child (QProcess) may not start threads any more, and every save starts encoder threads.
    EXPECT_EQ(recordingsFiles().size(), 3);
    EXPECT_EQ(tempFiles(), QStringList());
    for (const QString &path : clips) {
        const QJsonObject info = probe::ffprobe(path);
        ASSERT_EQ(probe::streams(info, "video").size(), 1);
        EXPECT_EQ(probe::streams(info, "audio").size(), 1);
        EXPECT_GE(probe::streams(info, "video")[0].toObject()["nb_frames"].toString().toInt(), 240);
        EXPECT_EQ(probe::decodeErrors(path), QString());
    }
}

} // namespace
