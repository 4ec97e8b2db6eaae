#include "core/ClipSettings.h"
#include "replay/ReplayBuffer.h"

#include "replay/ReplayBufferSupport.h"
#include "support/TestEnvironment.h"

#include <atomic>
#include <thread>

using namespace replay_test;
using ReplayBufferThreads = TempHomeTest;

// Video at 60 fps and two audio streams are stored from three threads while a fourth keeps
// taking snapshots; every snapshot must satisfy the buffer's promises.
TEST_F(ReplayBufferThreads, SnapshotsStayConsistentWhileThreeStreamsAppend)
{
    ClipSettings::setMaxDuration(15);
    ReplayBuffer buffer;
    std::atomic<int64_t> passedOn = 0;
    buffer.setOnVideoFrame(
        [&](const ReplayBuffer::EncodedFrame &, const VideoFormatPtr &) { ++passedOn; });
    buffer.setOnMicPacket([&](const ReplayBuffer::AudioPacket &) { buffer.audioCount(); });

    // 40 s of media time, produced as fast as the threads go; audio runs on the same clock.
    constexpr int64_t frames = 40 * 60;
    std::atomic<bool> done = false;
    std::thread video([&] {
        for (int64_t i = 0; i < frames; ++i)
            buffer.appendVideo(frame(i, i % 120 == 0, 2000), videoFormat());
    });
    auto audioThread = [&](bool mic) {
        return std::thread([&, mic] {
            AudioFeed feed;
            for (int i = 0; i < 4000; ++i)
                mic ? buffer.appendMic(feed.at(i * 0.01)) : buffer.appendAudio(feed.at(i * 0.01));
        });
    };
    std::thread audio = audioThread(false);
    std::thread mic = audioThread(true);

    int snapshots = 0;
    std::thread reader([&] {
        while (!done) {
            const auto snap = buffer.snapshot();
            ++snapshots;
            if (snap.video.empty())
                continue;
            // Opens on a key frame once a cut has happened (frame 0 is a key frame too).
            EXPECT_TRUE(snap.video.front().isKey);
            const MediaTime span = snap.video.back().pts - snap.video.front().pts;
            EXPECT_LE(span.seconds(), 17.0 + 1e-9);
            const MediaTime audioCutoff = snap.video.front().pts - ReplayBuffer::audioLead;
            for (const auto *list : {&snap.audio, &snap.mic})
                for (const auto &packet : *list)
                    ASSERT_GE(packet.pts, audioCutoff);
            for (const auto &f : snap.video)
                ASSERT_EQ(f.data.size(), 2000u);
            buffer.bufferedDuration();
        }
    });
    video.join();
    audio.join();
    mic.join();
    done = true;
    reader.join();

    EXPECT_GT(snapshots, 0);
    EXPECT_EQ(passedOn, frames);
    EXPECT_GE(buffer.bufferedDuration(), 15.0);
    EXPECT_LE(buffer.bufferedDuration(), 17.0);
}
