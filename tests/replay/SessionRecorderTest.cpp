#include "replay/SessionRecorder.h"

#include "core/Paths.h"

#include "support/H264TestSource.h"
#include "support/MediaProbe.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <cstdlib>

namespace {

class SessionRecorderTest : public TempHomeTest
{
protected:
    void SetUp() override { TempHomeTest::SetUp(); }

    QStringList recordings() const { return QDir(Paths::recordings()).entryList(QDir::Files); }
    QStringList leftovers() const
    {
        return QDir(tempFolder()).entryList({QStringLiteral("vantrel-*")}, QDir::Files);
    }

    // Capture as it arrives: video frames [first, end) and the audio of the same span, with the
    // capture clock at 100 s when frame 0 would have been taken.
    void feed(SessionRecorder &recorder, int64_t first, int64_t end)
    {
        for (int64_t i = first; i < end; ++i) {
            recorder.appendVideo(video.frame(i, origin), video.format());
            // Audio up to the end of this frame: 10 ms packets, 0.6 of a frame each.
            while (nextPacket * 6 < (i + 1) * 10) {
                recorder.appendAudio(tone.packet(nextPacket, origin));
                ++nextPacket;
            }
        }
    }

    H264TestSource video {320, 240, 500'000};
    PcmTestSource tone {1000, 0.3f};
    const MediaTime origin = MediaTime::make(100, 1);
    int64_t nextPacket = 0;
};

double number(const QJsonObject &object, const char *key)
{
    return probe::number(object.value(QLatin1String(key)));
}

} // namespace

// The file opens on the first key frame: what came before it (frames and audio alike) is not in
// it, and the whole of the rest is.
TEST_F(SessionRecorderTest, StartsAtTheFirstKeyFrameAndIsKept)
{
    std::optional<QString> kept;
    {
        SessionRecorder recorder(false);
        nextPacket = 90 * 10 / 6; // the audio, like the video, begins at frame 90
        feed(recorder, 90, 120 + 300); // 30 frames before the key frame at 120, then 5 s
        auto first = recorder.finish(true);
        auto second = recorder.finish(false);
        recorder.appendVideo(video.frame(500, origin), video.format()); // ignored: finished

        const SessionOutcome outcome = first.result();
        ASSERT_TRUE(outcome.file.has_value());
        kept = outcome.file->path;
        // Everything from the key frame on went in: 300 frames and their 5 s of audio.
        EXPECT_TRUE(outcome.file->shortfall.isComplete());
        EXPECT_EQ(outcome.file->shortfall.frames, 300);
        EXPECT_EQ(outcome.file->shortfall.audioPackets, 500);
        EXPECT_EQ(outcome.failure, QString());
        EXPECT_EQ(second.result(), outcome);
        // A finish after completion: the file again when keeping, none when not.
        EXPECT_EQ(recorder.finish(true).result(), outcome);
        EXPECT_EQ(recorder.finish(false).result(), SessionOutcome());
    }
    EXPECT_EQ(QFileInfo(*kept).dir().path(), QDir(Paths::recordings()).path());
    EXPECT_TRUE(QFileInfo(*kept).fileName().contains(QRegularExpression(
        QStringLiteral("^Session \\d{4}-\\d\\d-\\d\\d \\d\\d-\\d\\d-\\d\\d\\.mp4$"))));
    EXPECT_EQ(recordings().size(), 1);
    EXPECT_TRUE(leftovers().isEmpty()) << qPrintable(leftovers().join(u' '));

    // Read back once every thread of the recorder is gone.
    const QJsonObject info = probe::ffprobe(*kept, {QStringLiteral("-count_frames")});
    const QJsonArray videoStreams = probe::streams(info, QStringLiteral("video"));
    const QJsonArray audioStreams = probe::streams(info, QStringLiteral("audio"));
    ASSERT_EQ(videoStreams.size(), 1);
    ASSERT_EQ(audioStreams.size(), 1);
    const QJsonObject v = videoStreams[0].toObject();
    EXPECT_EQ(v.value(QStringLiteral("nb_read_frames")).toString().toInt(), 300);
    EXPECT_NEAR(number(v, "start_time"), 0, 1e-3);
    EXPECT_NEAR(number(v, "duration"), 5.0, 0.05);
    // Audio from before the key frame would make the track a half second longer.
    EXPECT_NEAR(number(audioStreams[0].toObject(), "duration"), 5.0, 0.1);
}

// Nothing is left behind when there is nothing to keep.
TEST_F(SessionRecorderTest, LeavesNoFileWhenNotKept)
{
    {
        // No key frame ever came: no file was started.
        SessionRecorder recorder(true);
        feed(recorder, 1, 100);
        EXPECT_EQ(recorder.finish(true).result(), SessionOutcome());
    }
    {
        SessionRecorder recorder(true);
        feed(recorder, 0, 240);
        EXPECT_EQ(recorder.finish(false).result(), SessionOutcome());
    }
    {
        // Dropped while writing, without a finish.
        SessionRecorder recorder(false);
        feed(recorder, 0, 240);
    }
    EXPECT_TRUE(recordings().isEmpty()) << qPrintable(recordings().join(u' '));
    EXPECT_TRUE(leftovers().isEmpty()) << qPrintable(leftovers().join(u' '));
}

// What the writer will not take is counted, not dropped in silence: frames that do not move time
// forward and audio without the bytes for its samples make a file that says it is incomplete.
TEST_F(SessionRecorderTest, CountsWhatTheWriterRefuses)
{
    SessionOutcome outcome;
    {
        SessionRecorder recorder(false);
        feed(recorder, 0, 120);
        // Three frames again, at times already written.
        for (int64_t i : {50, 60, 70})
            recorder.appendVideo(video.frame(i, origin), video.format());
        feed(recorder, 120, 240);
        AudioPacket hollow = tone.packet(nextPacket++, origin);
        hollow.numSamples = 48000; // far more than its bytes hold
        recorder.appendAudio(hollow);
        outcome = recorder.finish(true).result();
    }
    ASSERT_TRUE(outcome.file.has_value());
    EXPECT_EQ(outcome.file->shortfall, (Shortfall {3, 243, 1, nextPacket, 0, 0}));
    EXPECT_EQ(outcome.file->shortfall.text(),
              QStringLiteral("3 of 243 frames and 1 of %1 system audio packets").arg(nextPacket));
    EXPECT_EQ(probe::decodeErrors(outcome.file->path), QString());
}

// A session file lost to a full disk is no quiet "nothing to keep": the answer says why, and
// nothing is left behind.
TEST_F(SessionRecorderTest, AFullDiskLosesTheFileAndSaysWhy)
{
    const QString full = QDir(home()).filePath(QStringLiteral("full"));
    TemporaryMount mount(full, "size=64k");
    if (!mount.mounted())
        GTEST_SKIP() << "cannot mount a tmpfs here (" << mount.error() << ")";
    setenv("TMPDIR", QFile::encodeName(full).constData(), 1);
    SessionOutcome outcome;
    {
        SessionRecorder recorder(false);
        feed(recorder, 0, 240);
        outcome = recorder.finish(true).result();
    }
    EXPECT_FALSE(outcome.file.has_value());
    EXPECT_TRUE(outcome.failure.contains(QStringLiteral("No space left on device")))
        << outcome.failure.toStdString();
    EXPECT_TRUE(recordings().isEmpty());
    EXPECT_TRUE(QDir(full).entryList(QDir::Files).isEmpty());
}
