// Replay buffer costs: the steady-state price of one append with a 120 s buffer against a 15 s
// one (it must not grow with the length), the time to snapshot a full 120 s buffer, and the
// memory a full buffer holds against the payload it stores.

#include "BenchSupport.h"

#include "core/ClipSettings.h"
#include "replay/ReplayBuffer.h"

#include <malloc.h>

#include <cstdio>
#include <memory>

namespace {

constexpr int fps = 60;
constexpr size_t frameBytes = 18'000'000 / 8 / fps; // 18 Mbit/s
constexpr int audioFrames = 480; // 10 ms at 48 kHz
constexpr size_t audioBytes = audioFrames * 2 * sizeof(float);

const auto videoFormat = std::make_shared<const VideoFormat>(VideoFormat {1920, 1080, {1, 0x64}});
const auto audioFormat = std::make_shared<const AudioFormat>(AudioFormat {48000, 2});

struct Feeder
{
    std::vector<uint8_t> video = std::vector<uint8_t>(frameBytes, 0x5a);
    std::vector<uint8_t> pcm = std::vector<uint8_t>(audioBytes, 0x11);
    std::span<const uint8_t> pcmPiece {pcm};
    int64_t frame = 0;
    int64_t audioPacket = 0;
    size_t payload = 0;

    static MediaTime nanos(int64_t numerator, int64_t denominator)
    {
        return MediaTime::make(numerator * 1'000'000'000 / denominator, 1'000'000'000);
    }

    // One second of capture: 60 frames (a key frame every 120) and 100 packets on each of the
    // two audio streams, interleaved as they would arrive. Returns the number of appends.
    int second(ReplayBuffer &buffer)
    {
        int appends = 0;
        for (int f = 0; f < fps; ++f, ++frame) {
            buffer.appendVideo(
                {Bytes::copy(video), nanos(frame, fps), MediaTime::make(1, fps), frame % 120 == 0},
                videoFormat);
            payload += frameBytes;
            ++appends;
            // 100 audio packets per second, spread over the 60 frames.
            while (audioPacket * fps < (frame + 1) * 100) {
                const AudioSampleBuffer sample {std::span(&pcmPiece, 1),
                                                nanos(audioPacket, 100),
                                                MediaTime::make(audioFrames, 48000),
                                                audioFrames,
                                                audioFormat,
                                                {}};
                buffer.appendAudio(sample);
                buffer.appendMic(sample);
                payload += 2 * audioBytes;
                appends += 2;
                ++audioPacket;
            }
        }
        return appends;
    }
};

// Nanoseconds per append once the buffer holds its full length.
double steadyAppendCost(double length)
{
    ClipSettings::setMaxDuration(length);
    ReplayBuffer buffer;
    Feeder feeder;
    for (int s = 0; s < int(length) + 4; ++s)
        feeder.second(buffer);
    const auto start = std::chrono::steady_clock::now();
    int appends = 0;
    for (int s = 0; s < 10; ++s)
        appends += feeder.second(buffer);
    return bench::secondsSince(start) * 1e9 / appends;
}

size_t heapInUse()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

} // namespace

int main()
{
    bench::isolateHome();
    constexpr int runs = 5;

    std::vector<double> cost15, cost120;
    for (int run = 0; run < runs; ++run) {
        // Alternate so that drift on a shared machine hits both sides alike.
        cost15.push_back(steadyAppendCost(15));
        cost120.push_back(steadyAppendCost(120));
    }
    const double append15 = bench::median(cost15), append120 = bench::median(cost120);
    const double ratio = append120 / append15;
    std::printf("append, 15 s buffer:  %.0f ns (median of %d)\n", append15, runs);
    std::printf("append, 120 s buffer: %.0f ns (median of %d)\n", append120, runs);
    std::printf("append cost ratio 120 s / 15 s: %.2f\n", ratio);

    ClipSettings::setMaxDuration(120);
    malloc_trim(0);
    const size_t before = heapInUse();
    auto buffer = std::make_unique<ReplayBuffer>();
    Feeder feeder;
    for (int s = 0; s < 125; ++s)
        feeder.second(*buffer);
    const size_t held = heapInUse() - before;
    const auto full = buffer->snapshot();
    size_t stored = 0;
    for (const auto &f : full.video)
        stored += f.data.size();
    for (const auto *list : {&full.audio, &full.mic})
        for (const auto &p : *list)
            stored += p.data.size();
    const double memoryRatio = double(held) / double(stored);
    std::printf("full 120 s buffer: %.1f s, %zu frames, %zu + %zu audio packets\n",
                buffer->bufferedDuration(), full.video.size(), full.audio.size(), full.mic.size());
    std::printf("memory held: %.1f MB for %.1f MB of payload (%.3fx)\n", held / 1e6, stored / 1e6,
                memoryRatio);

    std::vector<double> snapshotMs;
    for (int run = 0; run < 21; ++run) {
        const auto start = std::chrono::steady_clock::now();
        const auto snap = buffer->snapshot();
        snapshotMs.push_back(bench::secondsSince(start) * 1e3);
    }
    const double snapshot = bench::median(snapshotMs);
    std::printf("snapshot of the full buffer: %.3f ms (median of 21)\n", snapshot);

    const bool pass = ratio <= 1.5 && snapshot <= 2.0 && memoryRatio <= 1.10;
    char figure[160];
    std::snprintf(figure, sizeof figure,
                  "append ratio %.2f, snapshot %.2f ms, memory %.3fx payload", ratio, snapshot,
                  memoryRatio);
    return bench::verdict("replay_buffer", figure,
                          "append ratio <= 1.5, snapshot <= 2 ms, memory <= 1.10x payload", pass);
}
