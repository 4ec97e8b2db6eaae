#include "replay/ReplayBuffer.h"
#include "core/ClipSettings.h"
#include "core/LengthKeys.h"

#include "replay/ReplayBufferSupport.h"
#include "support/TestEnvironment.h"

using namespace replay_test;
using ReplayBufferTest = TempHomeTest;

TEST_F(ReplayBufferTest, TrimsToEachClipLengthAlwaysAtAKeyFrame)
{
    for (double length : ClipSettings::lengthOptions) {
        ClipSettings::setMaxDuration(length);
        ReplayBuffer buffer;
        const int64_t end = feedVideo(buffer, 0, length + 10.3);
        const auto snap = buffer.snapshot();
        ASSERT_FALSE(snap.video.empty());
        EXPECT_TRUE(snap.video.front().isKey) << length;
        EXPECT_GE(buffer.bufferedDuration(), length) << length;
        EXPECT_LE(buffer.bufferedDuration(), length + 2.0) << length;
        EXPECT_EQ(snap.video.back().pts, frameTime(end - 1));
        // What it holds is what is left after the trim, not what went in.
        EXPECT_EQ(buffer.heldBytes(), snap.video.size() * 64) << length;
        // Contiguous: nothing but a prefix was ever removed.
        for (size_t i = 1; i < snap.video.size(); ++i)
            ASSERT_LT(snap.video[i - 1].pts, snap.video[i].pts);
    }
}

TEST_F(ReplayBufferTest, LengthChangesTakeEffectAtTheNextAppend)
{
    ClipSettings::setMaxDuration(60);
    ReplayBuffer buffer;
    int64_t next = feedVideo(buffer, 0, 70);
    EXPECT_GE(buffer.bufferedDuration(), 60);
    ClipSettings::setMaxDuration(15);
    next = feedVideo(buffer, next, 1.0 / 60);
    EXPECT_LE(buffer.bufferedDuration(), 17);
    EXPECT_GE(buffer.bufferedDuration(), 15);
    // Longer again: the buffer grows from here on instead of jumping back.
    ClipSettings::setMaxDuration(120);
    feedVideo(buffer, next, 30);
    EXPECT_GE(buffer.bufferedDuration(), 45);
    EXPECT_LE(buffer.bufferedDuration(), 47.1);
}

TEST_F(ReplayBufferTest, WithoutAKeyFrameInReachNothingIsCut)
{
    ClipSettings::setMaxDuration(15);
    ReplayBuffer buffer;
    // One key frame at the start, then none for 40 s: the window cannot start anywhere else.
    feedVideo(buffer, 0, 40, 1'000'000);
    EXPECT_EQ(buffer.videoCount(), 40 * 60);
    EXPECT_NEAR(buffer.bufferedDuration(), 40.0 - 1.0 / 60, 1e-9);
    // The first stored frame need not be a key frame: it is kept until a cut is possible.
    ReplayBuffer late;
    late.appendVideo(frame(0, false), nullptr);
    feedVideo(late, 1, 20, 1'000'000);
    EXPECT_EQ(late.videoCount(), 1 + 20 * 60);
    EXPECT_FALSE(late.snapshot().video.front().isKey);
    EXPECT_EQ(ReplayBuffer().bufferedDuration(), 0.0);
    late.invalidate();
    late.appendVideo(frame(5, true), videoFormat());
    EXPECT_EQ(late.bufferedDuration(), 0.0);
}

TEST_F(ReplayBufferTest, AudioAndMicAreTrimmedAgainstTheVideo)
{
    ClipSettings::setMaxDuration(15);
    ReplayBuffer buffer;
    AudioFeed feed;
    // No video yet: audio is never trimmed, however old.
    for (int i = 0; i < 300; ++i) {
        buffer.appendAudio(feed.at(i * 0.01));
        buffer.appendMic(feed.at(i * 0.01));
    }
    EXPECT_EQ(buffer.audioCount(), 300);
    EXPECT_EQ(buffer.snapshot().mic.size(), 300u);

    // The first frame at 3.0 s: packets from 2.8 s on stay, the rest go at once.
    buffer.appendVideo(frame(180, true), videoFormat());
    auto snap = buffer.snapshot();
    EXPECT_EQ(buffer.audioCount(), 20);
    EXPECT_EQ(snap.mic.size(), 20u);
    EXPECT_EQ(snap.audio.front().pts, nanos(2.8));

    // 0.1 s before the first frame stays, 0.3 s before it goes at the next trim.
    ReplayBuffer edge;
    edge.appendVideo(frame(60, true), videoFormat());
    edge.appendAudio(feed.at(0.7));
    edge.appendMic(feed.at(0.9));
    EXPECT_EQ(edge.audioCount(), 0);
    edge.appendAudio(feed.at(0.9));
    snap = edge.snapshot();
    ASSERT_EQ(snap.audio.size(), 1u);
    EXPECT_EQ(snap.audio[0].pts, nanos(0.9));
    EXPECT_EQ(snap.mic.size(), 1u);
    EXPECT_EQ(edge.audioCount(), 1); // the microphone is not counted

    // As the video window moves on, old audio follows it out.
    feedVideo(buffer, 181, 30);
    for (int i = 0; i < 3000; ++i)
        buffer.appendAudio(feed.at(3.0 + i * 0.01));
    snap = buffer.snapshot();
    EXPECT_GE(snap.audio.front().pts, snap.video.front().pts - ReplayBuffer::audioLead);
    EXPECT_TRUE(snap.mic.empty()); // all microphone packets were older than the window
}

TEST_F(ReplayBufferTest, MalformedAudioIsDroppedAndMissingDurationsAreWorkedOut)
{
    ReplayBuffer buffer;
    int calls = 0;
    buffer.setOnAudioPacket([&](const ReplayBuffer::AudioPacket &) { ++calls; });
    AudioFeed feed;

    auto noSamples = feed.at(0);
    noSamples.numSamples = 0;
    auto noFormat = feed.at(0);
    noFormat.format = nullptr;
    std::span<const uint8_t> emptyPiece;
    auto noBytes = feed.at(0);
    noBytes.buffers = std::span(&emptyPiece, 1);
    auto noBuffers = feed.at(0);
    noBuffers.buffers = {};
    for (const auto &bad : {noSamples, noFormat, noBytes, noBuffers})
        buffer.appendAudio(bad);
    EXPECT_EQ(buffer.audioCount(), 0);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(buffer.snapshot().audioFormat, nullptr);

    // 1024 samples with no duration: 1024/48000; an unknown rate falls back to 48000; a rate of
    // 44100 is used as it is.
    auto invalid = feed.at(1, stereoFloat(48000), MediaTime::invalid());
    invalid.numSamples = 1024;
    auto unknownRate = feed.at(2, stereoFloat(0), MediaTime::zero());
    auto cd = feed.at(3, stereoFloat(44100), MediaTime::zero());
    for (const auto &good : {invalid, unknownRate, cd})
        buffer.appendAudio(good);
    const auto snap = buffer.snapshot();
    ASSERT_EQ(snap.audio.size(), 3u);
    EXPECT_EQ(snap.audio[0].duration, MediaTime::make(1024, 48000));
    EXPECT_EQ(snap.audio[1].duration, MediaTime::make(480, 48000));
    EXPECT_EQ(snap.audio[2].duration, MediaTime::make(480, 44100));
    EXPECT_EQ(snap.audioFormat, snap.audio[0].format); // the first packet's format is kept
    EXPECT_EQ(calls, 3);

    // Planar pieces are stored back to back, in order.
    const std::vector<uint8_t> left(4, 1), right(4, 2);
    const std::span<const uint8_t> planes[] = {left, {}, right};
    buffer.appendMic({planes, nanos(4), MediaTime::make(1, 48000), 1, stereoFloat(), {}});
    const auto mic = buffer.snapshot().mic;
    ASSERT_EQ(mic.size(), 1u);
    EXPECT_EQ(std::vector<uint8_t>(mic[0].data.data(), mic[0].data.data() + 8),
              (std::vector<uint8_t> {1, 1, 1, 1, 2, 2, 2, 2}));
}

TEST_F(ReplayBufferTest, VideoIsPassedOnOnlyOnceAFormatIsKnownAndOutsideTheLock)
{
    ReplayBuffer buffer;
    std::vector<MediaTime> passed;
    buffer.setOnVideoFrame([&](const ReplayBuffer::EncodedFrame &f, const VideoFormatPtr &format) {
        // Reading the buffer from the callback would deadlock if it ran under the lock.
        EXPECT_GT(buffer.videoCount(), 0);
        EXPECT_EQ(format, videoFormat());
        passed.push_back(f.pts);
    });
    buffer.appendVideo(frame(0, false), videoFormat()); // not a key frame: no format
    buffer.appendVideo(frame(1, true), nullptr); // key, but the encoder gave no format
    EXPECT_TRUE(passed.empty());
    buffer.appendVideo(frame(2, true), videoFormat());
    buffer.appendVideo(frame(3, false), nullptr);
    ASSERT_EQ(passed.size(), 2u);
    EXPECT_EQ(passed[1], frameTime(3));

    buffer.setOnVideoFrame(nullptr);
    buffer.appendVideo(frame(4, false), nullptr);
    EXPECT_EQ(passed.size(), 2u);

    buffer.invalidate();
    EXPECT_EQ(buffer.videoCount(), 0);
    EXPECT_EQ(buffer.snapshot().videoFormat, nullptr);
}

TEST_F(ReplayBufferTest, ASnapshotSharesPayloadsAndOutlivesTrimsAndClears)
{
    ClipSettings::setMaxDuration(15);
    ReplayBuffer buffer;
    AudioFeed feed;
    int64_t next = feedVideo(buffer, 0, 20);
    buffer.appendAudio(feed.at(19.9));
    const auto snap = buffer.snapshot();
    const auto live = buffer.snapshot();
    // The same bytes, not copies.
    EXPECT_EQ(snap.video.front().data.data(), live.video.front().data.data());
    EXPECT_EQ(snap.audio.front().data.data(), live.audio.front().data.data());

    const auto firstPts = snap.video.front().pts;
    const uint8_t firstByte = snap.video.front().data.data()[0];
    next = feedVideo(buffer, next, 30);
    buffer.invalidate();
    feedVideo(buffer, next, 1);
    EXPECT_EQ(snap.video.front().pts, firstPts);
    EXPECT_EQ(snap.video.front().data.data()[0], firstByte);
    EXPECT_EQ(snap.video.size(), live.video.size());
    EXPECT_EQ(snap.audio.size(), 1u);
}

TEST_F(ReplayBufferTest, KeepsTheLongestLengthAKeyAsksForAndDropsWhatASaveTook)
{
    ClipSettings::setMaxDuration(15);
    LengthKeys::save(60, {67, 0, QStringLiteral("F9")});
    ReplayBuffer buffer;
    AudioFeed audio;
    int64_t next = 0;
    for (int second = 0; second < 70; ++second) {
        next = feedVideo(buffer, next, 1.0);
        for (int p = 0; p < 100; ++p)
            buffer.appendAudio(audio.at(second + p * 0.01));
    }
    EXPECT_GE(buffer.bufferedDuration(), 60);
    EXPECT_LE(buffer.bufferedDuration(), 62);

    // What a save took goes; what came while it was written stays, and opens the replay.
    const ReplayBuffer::Snapshot saved = buffer.snapshot();
    next = feedVideo(buffer, next, 0.5, 15);
    buffer.appendAudio(audio.at(70.0));
    buffer.dropThrough(saved);
    const ReplayBuffer::Snapshot left = buffer.snapshot();
    ASSERT_EQ(left.video.size(), 30u);
    EXPECT_EQ(left.video.front().pts, frameTime(next - 30));
    ASSERT_EQ(left.audio.size(), 1u);
    EXPECT_EQ(left.audio.front().pts, nanos(70.0));
    EXPECT_TRUE(left.videoFormat && left.audioFormat) << "the formats stay";

    // Dropped again with nothing new, it is empty; then it fills and trims as ever.
    buffer.dropThrough(buffer.snapshot());
    EXPECT_EQ(buffer.videoCount(), 0);
    EXPECT_EQ(buffer.audioCount(), 0);
    EXPECT_EQ(buffer.bufferedDuration(), 0.0);
    LengthKeys::clear(60);
    feedVideo(buffer, next, 20);
    EXPECT_GE(buffer.bufferedDuration(), 15);
    EXPECT_LE(buffer.bufferedDuration(), 17);
    EXPECT_TRUE(buffer.snapshot().video.front().isKey);
}
