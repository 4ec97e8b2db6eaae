#include "ClipExportSupport.h"

#include "core/LengthKeys.h"
#include "core/Paths.h"
#include "replay/ClipExport.h"
#include "replay/SessionRecorder.h"
#include "support/MediaProbe.h"

#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>
#include <cmath>

namespace {

const QRegularExpression
    clipName(QStringLiteral("^Clip \\d{4}-\\d\\d-\\d\\d \\d\\d-\\d\\d-\\d\\d [0-9A-F]{6}\\.mp4$"));

float peak(const std::vector<float> &samples, double from, double to)
{
    float result = 0;
    const size_t end = std::min(samples.size(), size_t(to * 48000));
    for (size_t i = size_t(from * 48000); i < end; ++i)
        result = std::max(result, std::fabs(samples[i]));
    return result;
}

// When the first sample above `level` plays, in seconds; -1 when none does.
double firstAbove(const std::vector<float> &samples, float level)
{
    const auto loud = std::find_if(samples.begin(), samples.end(),
                                   [&](float sample) { return std::fabs(sample) > level; });
    return loud == samples.end() ? -1.0 : double(loud - samples.begin()) / 48000;
}

// A save of a given length opens on the last key frame at least that long before the end; one
// longer than the buffer holds is all of it, and the answer says so.
TEST_F(ClipExportTest, SavesTheLengthAskedForOrAllItHolds)
{
    LengthKeys::save(120, {67, 0, QStringLiteral("F9")});
    ReplayBuffer buffer;
    const int64_t frames = 70 * 60 + 25;
    storeFrames(buffer, 0, frames);
    for (const double length : {15.0, 60.0, 120.0, 0.0}) {
        ClipExport::Options options;
        options.lengthSeconds = length;
        const WrittenFile clip = ClipExport::exportClip(buffer.snapshot(), options).result();
        // Key frames every 120 frames: the last one at or before `length` from the last frame.
        const int64_t cutoff = frames - 1 - int64_t(length) * 60;
        const int64_t start = length > 0 && cutoff >= 0 ? cutoff / 120 * 120 : 0;
        const double expected = double(frames - start) / 60;
        EXPECT_NEAR(clip.seconds, expected, 1e-6) << length;
        EXPECT_EQ(clip.askedSeconds, length);
        EXPECT_EQ(clip.isShorterThanAsked(), length == 120) << length;
        const QJsonObject info = probe::ffprobe(clip.path);
        const QJsonArray streams = probe::streams(info, QStringLiteral("video"));
        ASSERT_EQ(streams.size(), 1);
        EXPECT_NEAR(probe::number(streams[0].toObject().value(QStringLiteral("duration"))),
                    expected, 0.001)
            << length;
        EXPECT_EQ(streams[0].toObject().value(QStringLiteral("nb_frames")).toString().toInt(),
                  std::lround(expected * 60))
            << length;
    }
}

// A full save: one second of frames before the first key frame, ten seconds after it, system
// audio from half a second before it, the microphone from a tenth of a second before it.
TEST_F(ClipExportTest, WritesAPlayableClipFromTheFirstKeyFrame)
{
    ReplayBuffer buffer;
    storeFrames(buffer, 60, 720); // the first key frame is frame 120, at 2 s
    // Loud audio more than the audio lead (0.2 s) before the first frame must be dropped, as the
    // buffer would have dropped it had it been cut at that frame; what follows it up to the
    // first frame opens the clip.
    storeAudio(buffer, PcmTestSource {1000, 0.9f}, 1.5, 1.8);
    storeAudio(buffer, PcmTestSource {1000, 0.5f}, 1.8, 2.0);
    storeAudio(buffer, PcmTestSource {1000, 0.3f}, 2.0, 12.0);
    storeAudio(buffer, PcmTestSource {300, 0.2f}, 1.9, 12.0, true);
    const double buffered = buffer.bufferedDuration();

    const Outcome outcome = wait(exportOf(buffer));
    ASSERT_EQ(outcome.error, QString());
    const QFileInfo clip(outcome.path);
    EXPECT_EQ(clip.absolutePath(), QDir(Paths::recordings()).absolutePath());
    EXPECT_TRUE(clipName.match(clip.fileName()).hasMatch()) << clip.fileName().toStdString();
    EXPECT_EQ(recordingsFiles(), QStringList {clip.fileName()});
    EXPECT_EQ(tempFiles(), QStringList());
    EXPECT_EQ(buffer.videoCount(), 660); // the export takes nothing out of the buffer

    const QJsonObject info = probe::ffprobe(outcome.path);
    ASSERT_EQ(probe::streams(info, "video").size(), 1);
    const QJsonObject v = probe::streams(info, "video")[0].toObject();
    EXPECT_EQ(v["codec_name"].toString(), "h264");
    EXPECT_EQ(v["profile"].toString(), "High");
    EXPECT_EQ(v["avg_frame_rate"].toString(), "60/1");
    EXPECT_EQ(v["nb_frames"].toString(), "600");
    EXPECT_NEAR(probe::number(v["start_time"]), 0.0, 1e-9);
    EXPECT_NEAR(probe::number(v["duration"]), buffered, 2.0); // within one key-frame interval

    const QJsonArray packets =
        probe::ffprobe(outcome.path, {"-select_streams", "v:0", "-show_packets"})["packets"]
            .toArray();
    ASSERT_EQ(packets.size(), 600);
    EXPECT_TRUE(packets[0].toObject()["flags"].toString().startsWith('K'));
    EXPECT_NEAR(probe::number(packets[0].toObject()["pts_time"]), 0.0, 1e-9);
    EXPECT_NEAR(probe::number(packets[150].toObject()["pts_time"]), 2.5, 1e-9);
    EXPECT_FALSE(packets[150].toObject()["flags"].toString().startsWith('K'));

    const QJsonArray audio = probe::streams(info, "audio");
    ASSERT_EQ(audio.size(), 2); // system audio, then the microphone
    for (const QJsonValue &stream : audio) {
        const QJsonObject a = stream.toObject();
        EXPECT_EQ(a["codec_name"].toString(), "aac");
        EXPECT_EQ(a["sample_rate"].toString(), "48000");
        EXPECT_EQ(a["channels"].toInt(), 2);
        EXPECT_NEAR(probe::number(a["start_time"]), probe::number(v["start_time"]), 1.0 / 60);
        EXPECT_NEAR(probe::number(a["duration"]), probe::number(v["duration"]), 0.1);
    }
    EXPECT_EQ(probe::decodeErrors(outcome.path), QString());

    const std::vector<float> system = probe::decodeAudio(outcome.path, 0);
    EXPECT_LT(peak(system, 0, 10), 0.7f); // the packets before -0.2 s are gone
    EXPECT_GT(peak(system, 0, 0.02), 0.4f); // those from -0.2 s open the clip
    EXPECT_NEAR(peak(system, 0.1, 9.9), 0.3f, 0.05f);
    const std::vector<float> mic = probe::decodeAudio(outcome.path, 1);
    EXPECT_NEAR(peak(mic, 0.1, 9.9), 0.2f, 0.05f);
}

// The tracks follow what the snapshot holds: video alone, or video and system audio without a
// microphone track.
TEST_F(ClipExportTest, WritesOnlyTheTracksTheBufferHolds)
{
    ReplayBuffer buffer;
    storeFrames(buffer, 0, 240);
    const Outcome videoOnly = wait(exportOf(buffer));
    storeAudio(buffer, PcmTestSource {}, 0, 4);
    const Outcome withAudio = wait(exportOf(buffer));
    ASSERT_EQ(videoOnly.error, QString());
    ASSERT_EQ(withAudio.error, QString());
    EXPECT_EQ(recordingsFiles().size(), 2);

    QJsonObject info = probe::ffprobe(videoOnly.path);
    EXPECT_EQ(probe::streams(info, "video").size(), 1);
    EXPECT_EQ(probe::streams(info, "audio").size(), 0);
    EXPECT_EQ(probe::decodeErrors(videoOnly.path), QString());
    info = probe::ffprobe(withAudio.path);
    EXPECT_EQ(probe::streams(info, "video").size(), 1);
    EXPECT_EQ(probe::streams(info, "audio").size(), 1);
    EXPECT_EQ(probe::decodeErrors(withAudio.path), QString());
}

// Two saves in flight at once are independent: two clips, named apart by their six UUID
// characters when they fall in the same second.
TEST_F(ClipExportTest, TwoSavesAtOnceMakeTwoClips)
{
    ReplayBuffer buffer;
    storeFrames(buffer, 0, 360);
    storeAudio(buffer, PcmTestSource {}, 0, 6);
    QFuture<WrittenFile> first = ClipExport::exportClip(buffer.snapshot());
    QFuture<WrittenFile> second = ClipExport::exportClip(buffer.snapshot());
    const Outcome a = wait(first), b = wait(second);
    ASSERT_EQ(a.error, QString());
    ASSERT_EQ(b.error, QString());
    ASSERT_NE(a.path, b.path);
    const QString nameA = QFileInfo(a.path).fileName(), nameB = QFileInfo(b.path).fileName();
    EXPECT_TRUE(clipName.match(nameA).hasMatch());
    EXPECT_TRUE(clipName.match(nameB).hasMatch());
    if (nameA.left(24) == nameB.left(24)) {
        EXPECT_NE(nameA.mid(25, 6), nameB.mid(25, 6));
    }
    EXPECT_EQ(recordingsFiles().size(), 2);
    EXPECT_EQ(tempFiles(), QStringList());
    for (const QString &path : {a.path, b.path}) {
        EXPECT_EQ(probe::streams(probe::ffprobe(path), "audio").size(), 1);
        EXPECT_EQ(probe::decodeErrors(path), QString());
    }
}

} // namespace

// While armed, a clip copies the session file's AAC instead of encoding the same audio again:
// its audio packets are the session's own bytes, it starts with the packet the decoder warms up
// on, and it plays in step with the video exactly as a clip encoded from the PCM does. A history
// that does not cover the clip (here one never begun) leaves the clip to encode its audio.
TEST_F(ClipExportTest, CopiesTheSessionsAudioInStepWithTheVideo)
{
    const PcmTestSource quiet {1000, 0.3f}, loud {1000, 0.8f};
    std::shared_ptr<const EncodedAudioHistory> history;
    ReplayBuffer buffer;
    std::optional<QString> session;
    {
        // The session starts at frame 0; the buffer holds frames from 1 s and audio from 1.5 s,
        // so the clip starts at the key frame at 2 s, and the audio gets loud at 5 s.
        SessionRecorder recorder(false);
        history = recorder.audioHistory();
        for (int64_t i = 0; i < 720; ++i) {
            const ReplayBuffer::EncodedFrame frame = video.frame(i, origin());
            recorder.appendVideo(frame, video.format());
            if (i >= 60)
                buffer.appendVideo(ReplayBuffer::EncodedFrame(frame),
                                   frame.isKey ? video.format() : nullptr);
        }
        for (int64_t p = 0; p < 1200; ++p) {
            const PcmTestSource &source = p < 500 ? quiet : loud;
            recorder.appendAudio(source.packet(p, origin()));
            if (p >= 150)
                buffer.appendAudio(source.sampleBuffer(p, origin()));
        }
        const SessionOutcome outcome = recorder.finish(true).result();
        if (outcome.file)
            session = outcome.file->path;
    }
    ASSERT_TRUE(session);

    ClipExport::Options options;
    options.audioHistory = history;
    const Outcome copied = wait(ClipExport::exportClip(buffer.snapshot(), options));
    options.audioHistory = std::make_shared<EncodedAudioHistory>();
    const Outcome encoded = wait(ClipExport::exportClip(buffer.snapshot(), options));
    ASSERT_EQ(copied.error, QString());
    ASSERT_EQ(encoded.error, QString());
    EXPECT_EQ(probe::decodeErrors(copied.path), QString());

    // A steady tone makes packets that repeat, so every place is tried, not only the first.
    const QStringList ours = probe::audioPacketHashes(copied.path, 0);
    const QStringList sessions = probe::audioPacketHashes(*session, 0);
    ASSERT_GT(ours.size(), 400);
    bool found = false;
    for (qsizetype at = 0; at + ours.size() <= sessions.size() && !found; ++at)
        found = sessions.mid(at, ours.size()) == ours;
    EXPECT_TRUE(found) << "the clip's audio packets are not a run of the session's";

    // The clip starts 96000 samples into the session: 768 into a packet, after a warm-up one.
    const QJsonArray packets =
        probe::ffprobe(copied.path, {"-select_streams", "a:0", "-show_packets"})["packets"]
            .toArray();
    EXPECT_EQ(packets[0].toObject()["pts"].toInt(), -1792);
    const QJsonObject info = probe::ffprobe(copied.path);
    EXPECT_NEAR(probe::number(probe::streams(info, "audio")[0].toObject()["duration"]),
                probe::number(probe::streams(info, "video")[0].toObject()["duration"]), 0.05);

    const std::vector<float> ourAudio = probe::decodeAudio(copied.path, 0);
    const std::vector<float> theirAudio = probe::decodeAudio(encoded.path, 0);
    EXPECT_NEAR(peak(ourAudio, 0, 0.02), 0.3f, 0.05f); // warmed up: no fade-in at the start
    EXPECT_NEAR(peak(ourAudio, 0.02, 2.9), 0.3f, 0.05f);
    EXPECT_NEAR(firstAbove(ourAudio, 0.55f), 3.0, 0.003);
    EXPECT_NEAR(firstAbove(theirAudio, 0.55f), 3.0, 0.03); // within the timeline's allowance
    EXPECT_NEAR(peak(ourAudio, 3.1, 9.9), 0.8f, 0.05f);
}
