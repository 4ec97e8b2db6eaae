#include "replay/EncodedAudioHistory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

namespace {

using namespace std::chrono_literals;

const MediaTime origin = MediaTime::make(100, 1);

MediaTime at(double seconds)
{
    return origin + MediaTime::fromSeconds(seconds, 48000);
}

// An AAC track as an encoder hands it over: 1024-sample packets from the priming one at -1024,
// each carrying its own index so that a test can tell them apart.
class Track
{
public:
    explicit Track(EncodedAudioHistory &history)
        : m_history(history)
    {
        FFmpeg::CodecParametersPtr parameters(avcodec_parameters_alloc());
        parameters->codec_type = AVMEDIA_TYPE_AUDIO;
        parameters->codec_id = AV_CODEC_ID_AAC;
        parameters->sample_rate = 48000;
        history.begin(*parameters, origin);
    }

    // Appends packets until the track reaches `seconds` after its zero.
    void appendUntil(double seconds)
    {
        while (m_nextPts < seconds * 48000)
            appendAt(m_nextPts);
    }
    void appendAt(int64_t pts)
    {
        FFmpeg::PacketPtr packet = FFmpeg::makePacket();
        ASSERT_EQ(av_new_packet(packet.get(), 4), 0);
        std::memcpy(packet->data, &m_index, 4);
        packet->pts = packet->dts = pts;
        packet->duration = 1024;
        m_history.append(*packet);
        ++m_index;
        m_nextPts = pts + 1024;
    }

private:
    EncodedAudioHistory &m_history;
    int32_t m_index = 0; // of the next packet
    int64_t m_nextPts = -1024;
};

int32_t indexOf(const AVPacket &packet)
{
    int32_t index = -1;
    std::memcpy(&index, packet.data, 4);
    return index;
}

} // namespace

// A clip gets the packets that play its span, re-timed to its start, with the packet before the
// first one for the decoder to warm up on; at the track's very start that is the priming packet.
TEST(EncodedAudioHistoryTest, GivesTheClipItsPacketsWithOneToWarmUpOn)
{
    EncodedAudioHistory history;
    Track track(history);
    track.appendUntil(3.0);

    // 1.0 s is sample 48000, inside packet 47 (47104..48128).
    std::optional<EncodedAudioHistory::Clip> clip = history.clip(at(1.0), at(2.0), 0ms);
    ASSERT_TRUE(clip);
    EXPECT_EQ(clip->parameters->sample_rate, 48000);
    ASSERT_EQ(clip->packets.size(), 49u); // 46 (warm-up) to 94, which holds sample 95999
    EXPECT_EQ(indexOf(*clip->packets.front()), 46);
    EXPECT_EQ(clip->packets.front()->pts, 45 * 1024 - 48000);
    EXPECT_EQ(clip->packets[1]->pts, 46 * 1024 - 48000);
    EXPECT_EQ(indexOf(*clip->packets.back()), 94);
    for (size_t i = 1; i < clip->packets.size(); ++i)
        EXPECT_EQ(clip->packets[i]->pts - clip->packets[i - 1]->pts, 1024);

    clip = history.clip(origin, at(0.5), 0ms);
    ASSERT_TRUE(clip);
    EXPECT_EQ(indexOf(*clip->packets.front()), 0);
    EXPECT_EQ(clip->packets.front()->pts, -1024);

    // Spans the history does not hold, or holds only in part.
    EXPECT_FALSE(history.clip(at(-0.5), at(1.0), 0ms));
    EXPECT_FALSE(history.clip(at(2.0), at(3.5), 0ms));
    EXPECT_FALSE(history.clip(at(2.0), at(2.0), 0ms));
    EXPECT_FALSE(EncodedAudioHistory().clip(at(0), at(1), 0ms)); // never begun
}

// Old audio is let go of, and so is everything before a jump in the track, which would put the
// wrong samples under a clip; a new start forgets the old track.
TEST(EncodedAudioHistoryTest, ForgetsWhatIsTooOldOrNoLongerOneTrack)
{
    EncodedAudioHistory history(std::chrono::seconds(2));
    Track track(history);
    track.appendUntil(5.0);
    EXPECT_FALSE(history.clip(at(1.0), at(2.0), 0ms));
    EXPECT_TRUE(history.clip(at(3.5), at(4.5), 0ms));

    track.appendAt(10 * 48000);
    EXPECT_FALSE(history.clip(at(3.5), at(4.5), 0ms));
    track.appendUntil(11.0);
    EXPECT_TRUE(history.clip(at(10.1), at(10.9), 0ms));

    Track again(history);
    EXPECT_FALSE(history.clip(at(10.1), at(10.9), 0ms));
    again.appendUntil(1.0);
    EXPECT_TRUE(history.clip(at(0.1), at(0.9), 0ms));
}

// A save waits for the live encoder to catch up with the end of its clip, and stops waiting the
// moment the writer closes.
TEST(EncodedAudioHistoryTest, WaitsForTheEncoderToCatchUp)
{
    EncodedAudioHistory history;
    Track track(history);
    track.appendUntil(1.0);

    std::thread writer([&] {
        std::this_thread::sleep_for(50ms);
        track.appendUntil(2.0);
    });
    EXPECT_TRUE(history.clip(at(0.5), at(1.9), 60s));
    writer.join();

    std::thread closer([&] {
        std::this_thread::sleep_for(50ms);
        history.close();
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(history.clip(at(0.5), at(5.0), 60s));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
    closer.join();
}
