#include "ClipExportSupport.h"

#include "core/Paths.h"
#include "media/RecorderError.h"
#include "replay/ClipExport.h"
#include "support/MediaProbe.h"

#include <QFile>
#include <QFileInfo>

#include <cstdlib>
#include <future>
#include <sys/stat.h>

namespace {

// The snapshot must come out of a failure exactly as it went in.
void expectUntouched(const ReplayBuffer &buffer, int video, int audio)
{
    EXPECT_EQ(buffer.videoCount(), video);
    EXPECT_EQ(buffer.audioCount(), audio);
}

TEST_F(ClipExportTest, SaysWhyNothingCouldBeSaved)
{
    // The application words this one with the clip key's name.
    const QString gettingStarted = RecorderError::stillStarting().text();
    ReplayBuffer buffer;
    EXPECT_EQ(wait(exportOf(buffer)).error, gettingStarted);

    // Frames, but none of them a key frame yet.
    for (int64_t i = 1; i < 100; ++i)
        buffer.appendVideo(video.frame(i, origin()), nullptr);
    EXPECT_EQ(wait(exportOf(buffer)).error, gettingStarted);

    // A key frame, but the encoder has not said what its format is.
    ReplayBuffer unformatted;
    unformatted.appendVideo(video.frame(0, origin()), nullptr);
    EXPECT_EQ(wait(exportOf(unformatted)).error, gettingStarted);

    expectUntouched(buffer, 99, 0);

    // One tiny frame makes a complete but empty-looking file, which is not kept.
    ReplayBuffer tiny;
    const uint8_t payload[] = {0, 0, 0, 4, 0x65, 0x88, 0x84, 0x00};
    tiny.appendVideo({Bytes::copy(payload), origin(), MediaTime::make(1, 60), true},
                     video.format());
    EXPECT_EQ(wait(exportOf(tiny)).error, QStringLiteral("Clip file was empty."));

    // Frames the writer refuses every one of (no usable time stamps) make no clip at all.
    ReplayBuffer timeless;
    for (int64_t i = 0; i < 10; ++i) {
        ReplayBuffer::EncodedFrame frame = video.frame(i);
        frame.pts = MediaTime::invalid();
        timeless.appendVideo(std::move(frame), video.format());
    }
    EXPECT_EQ(wait(exportOf(timeless)).error,
              QStringLiteral("Could not write video into the clip."));

    EXPECT_EQ(recordingsFiles(), QStringList());
    EXPECT_EQ(tempFiles(), QStringList());
}

// A clip the writer would not take all of is saved with what it could take, and the answer says
// what is missing: frames that do not move time forward, audio without the bytes for its
// samples, and a microphone track at a rate no AAC encoder takes, which cannot be added at all.
TEST_F(ClipExportTest, AClipMissingFramesOrAudioSaysWhatItLacks)
{
    ReplayBuffer buffer;
    storeFrames(buffer, 0, 120);
    for (int64_t i : {50, 60, 70})
        buffer.appendVideo(video.frame(i, origin()), nullptr);
    storeFrames(buffer, 120, 240);
    storeAudio(buffer, PcmTestSource {}, 0, 4);
    AudioSampleBuffer hollow = PcmTestSource {}.sampleBuffer(400, origin());
    hollow.numSamples = 48000; // far more than its bytes hold
    buffer.appendAudio(hollow);
    PcmTestSource odd;
    for (int64_t p = 0; p < 50; ++p) {
        AudioSampleBuffer sample = odd.sampleBuffer(p, origin());
        sample.format = std::make_shared<const AudioFormat>(AudioFormat {1'000'000, 2});
        buffer.appendMic(sample);
    }

    const Outcome outcome = wait(exportOf(buffer));
    ASSERT_EQ(outcome.error, QString());
    EXPECT_EQ(outcome.shortfall, (Shortfall {3, 243, 1, 401, 50, 50}));
    EXPECT_EQ(outcome.shortfall.text(),
              QStringLiteral("3 of 243 frames, 1 of 401 system audio packets and 50 of 50 "
                             "microphone packets"));
    const QJsonObject info = probe::ffprobe(outcome.path);
    EXPECT_EQ(probe::streams(info, "video")[0].toObject()["nb_frames"].toString(), "240");
    EXPECT_EQ(probe::streams(info, "audio").size(), 1);
    EXPECT_EQ(probe::decodeErrors(outcome.path), QString());

    // A clip the writer took whole lacks nothing.
    ReplayBuffer whole;
    storeFrames(whole, 0, 120);
    storeAudio(whole, PcmTestSource {}, 0, 2);
    const Outcome complete = wait(exportOf(whole));
    EXPECT_TRUE(complete.shortfall.isComplete());
    EXPECT_EQ(complete.shortfall.text(), QString());
}

// A recordings folder that cannot be written (here a plain file in its place, since root is not
// stopped by permissions) fails the save with the reason, leaves no temporary file, and leaves
// the buffer ready for the next try.
TEST_F(ClipExportTest, UnwritableRecordingsFolderKeepsTheBuffer)
{
    ReplayBuffer buffer;
    storeFrames(buffer, 0, 240);
    storeAudio(buffer, PcmTestSource {}, 0, 4);
    const QString folder = Paths::recordings();
    ASSERT_TRUE(QDir(folder).removeRecursively());
    {
        QFile blocker(folder);
        ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    }

    const Outcome blocked = wait(exportOf(buffer));
    EXPECT_TRUE(blocked.error.startsWith(QStringLiteral("Could not save Clip ")))
        << blocked.error.toStdString();
    EXPECT_TRUE(blocked.error.endsWith(QStringLiteral(": Not a directory.")))
        << blocked.error.toStdString();
    EXPECT_EQ(tempFiles(), QStringList());
    expectUntouched(buffer, 240, 400);

    ASSERT_TRUE(QFile::remove(folder));
    const Outcome retried = wait(exportOf(buffer));
    ASSERT_EQ(retried.error, QString());
    EXPECT_EQ(probe::decodeErrors(retried.path), QString());
}

dev_t deviceOf(const QString &path)
{
    struct stat info = {};
    ::stat(QFile::encodeName(path).constData(), &info);
    return info.st_dev;
}

// The temporary folder on a file system of its own (tmpfs, as /tmp often is): the finished clip
// is copied across and renamed into place, and a full temporary folder fails the save cleanly.
TEST_F(ClipExportTest, TemporaryFolderOnAnotherFileSystem)
{
    const QString roomy = QDir(home()).filePath(QStringLiteral("roomy"));
    TemporaryMount roomyMount(roomy, "size=64m");
    if (!roomyMount.mounted())
        GTEST_SKIP() << "cannot mount a tmpfs here (" << roomyMount.error()
                     << "); the cross-file-system save and the full disk are not tested";
    ASSERT_NE(deviceOf(roomy), deviceOf(Paths::recordings()));

    ReplayBuffer buffer;
    storeFrames(buffer, 0, 360);
    storeAudio(buffer, PcmTestSource {}, 0, 6);
    setenv("TMPDIR", QFile::encodeName(roomy).constData(), 1);
    const Outcome copied = wait(exportOf(buffer));
    ASSERT_EQ(copied.error, QString());
    EXPECT_EQ(recordingsFiles(), QStringList {QFileInfo(copied.path).fileName()});
    EXPECT_EQ(tempFiles(), QStringList());

    const QString full = QDir(home()).filePath(QStringLiteral("full"));
    TemporaryMount fullMount(full, "size=64k");
    ASSERT_TRUE(fullMount.mounted()) << fullMount.error();
    setenv("TMPDIR", QFile::encodeName(full).constData(), 1);
    const Outcome failed = wait(exportOf(buffer));
    EXPECT_TRUE(failed.error.contains(QStringLiteral("No space left on device")))
        << failed.error.toStdString();
    EXPECT_EQ(tempFiles(), QStringList());
    EXPECT_EQ(recordingsFiles().size(), 1);
    expectUntouched(buffer, 360, 600);
    EXPECT_EQ(probe::decodeErrors(copied.path), QString());
}

// The time limit answers first; the writer, left to finish on its own, then finds the answer
// given and moves nothing anywhere.
TEST_F(ClipExportTest, TimeLimitAnswersFirstAndLeavesNothing)
{
    ReplayBuffer buffer;
    storeFrames(buffer, 0, 600);
    storeAudio(buffer, PcmTestSource {}, 0, 10);
    std::promise<void> writerDone;
    ClipExport::Options options;
    options.timeLimit = std::chrono::milliseconds(1);
    options.onWriterDone = [&] { writerDone.set_value(); };

    EXPECT_EQ(wait(ClipExport::exportClip(buffer.snapshot(), options)).error,
              QStringLiteral("Timed out saving the clip."));
    writerDone.get_future().wait();
    EXPECT_EQ(recordingsFiles(), QStringList());
    EXPECT_EQ(tempFiles(), QStringList());
}

} // namespace
