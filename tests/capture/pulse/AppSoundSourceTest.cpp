#include "capture/pulse/AppSoundSource.h"
#include "capture/pulse/PulseAudioCapture.h"
#include "core/SerialQueue.h"

#include "capture/CaptureRecorders.h"
#include "support/ChildProcess.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <numbers>
#include <thread>

using namespace capture_test;
using namespace std::chrono_literals;

namespace {

// The amplitude of `hz` in the first channel (Goertzel), over whole packets: a tone at 0.5
// reads about 0.5 (ffmpeg's sine is at 0.125), another tone at a frequency well apart reads close
// to 0.
double level(const std::vector<AudioRecord> &packets, double hz)
{
    const std::vector<float> left = firstChannel(packets);
    if (left.empty())
        return 0;
    const double w = 2 * std::numbers::pi * hz / 48000;
    double s1 = 0, s2 = 0;
    for (float x : left) {
        const double s = x + 2 * std::cos(w) * s1 - s2;
        s2 = s1;
        s1 = s;
    }
    const double power = s1 * s1 + s2 * s2 - 2 * std::cos(w) * s1 * s2;
    return 2 * std::sqrt(std::max(power, 0.0)) / double(left.size());
}

float peak(const std::vector<AudioRecord> &packets)
{
    float most = 0;
    for (const AudioRecord &packet : packets)
        for (float s : packet.samples)
            most = std::max(most, std::abs(s));
    return most;
}

std::vector<AudioRecord> after(const std::vector<AudioRecord> &packets, size_t from)
{
    return {packets.begin() + std::min(from, packets.size()), packets.end()};
}

// paplay playing a tone in a loop under an application name of its own.
std::unique_ptr<ChildProcess> play(const std::string &tone, const std::string &name)
{
    return std::make_unique<ChildProcess>(
        std::vector<std::string> {"paplay", "--property=application.name=" + name, tone});
}

bool waitUntil(const std::function<bool()> &done, std::chrono::milliseconds timeout = 10s)
{
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

} // namespace

// Two programs play different tones into the default sink. The list names both (not our own
// streams); the recording of "Game" holds only Game's tone; when Game stops the recording goes on
// as silence, and when Game plays again (a new stream under the same name) it is followed.
TEST(AppSoundSourceTest, RecordsOnlyTheChosenApplicationAndFollowsItByName)
{
    QTemporaryDir dir;
    auto makeTone = [&](int hz) {
        const std::string path = dir.filePath(QStringLiteral("tone%1.wav").arg(hz)).toStdString();
        const std::string sine = "sine=f=" + std::to_string(hz) + ":r=48000:d=30";
        EXPECT_EQ(ChildProcess::run({"ffmpeg", "-loglevel", "error", "-f", "lavfi", "-i", sine,
                                     "-ac", "2", path}),
                  0);
        return path;
    };
    const std::string gameTone = makeTone(440), chatTone = makeTone(1500),
                      laterTone = makeTone(660);

    auto chat = play(chatTone, "Chat");
    auto game = play(gameTone, "Game");
    const auto listed = [](const QString &name) {
        return AppSoundSource::playingApplications().contains(name);
    };
    ASSERT_TRUE(waitUntil([&] { return listed("Chat") && listed("Game"); }))
        << AppSoundSource::playingApplications().join(", ").toStdString();

    SerialQueue queue("com.quillfen.vantrel.audio", "vt-audio");
    AudioLog log;
    std::vector<std::string> notices;
    std::mutex noticeLock;
    PulseAudioCapture capture(48000, 2, [&](const std::string &text) {
        std::scoped_lock lock(noticeLock);
        notices.push_back(text);
    });
    capture.addOutput(PulseAudioCapture::Source::system, queue, log.handler());
    capture.recordApplication("Game");
    capture.start();
    ASSERT_TRUE(log.waitFor(25)); // a second
    const std::vector<AudioRecord> playing = after(log.packets(), 5);
    EXPECT_GT(level(playing, 440), 0.05);
    EXPECT_LT(level(playing, 1500), 0.01) << "the other application is heard";

    game.reset(); // killed: its stream goes
    size_t stoppedAt = log.packets().size();
    // The track goes on, silent, once the stream is gone.
    ASSERT_TRUE(waitUntil([&] {
        const auto packets = log.packets();
        return packets.size() > stoppedAt + 12 && peak(after(packets, packets.size() - 12)) == 0;
    })) << "no silence after the application stopped";
    stoppedAt = log.packets().size();
    ASSERT_TRUE(log.waitFor(stoppedAt + 12));
    EXPECT_EQ(peak(after(log.packets(), stoppedAt)), 0) << "the other application leaks in";
    EXPECT_FALSE(capture.failure());

    game = play(laterTone, "Game");
    const size_t restartedAt = log.packets().size();
    ASSERT_TRUE(waitUntil([&] { return level(after(log.packets(), restartedAt), 660) > 0.05; }))
        << "the application was not followed when it played again";
    const size_t followedAt = log.packets().size();
    ASSERT_TRUE(log.waitFor(followedAt + 25));
    // A second of it (a loaded machine may drop a little), and none of the other program.
    const std::vector<AudioRecord> again = after(log.packets(), followedAt);
    EXPECT_GT(level(again, 660), 0.03);
    EXPECT_LT(level(again, 1500), 0.01);
    capture.stop();
    EXPECT_FALSE(capture.failure());
    std::scoped_lock lock(noticeLock);
    EXPECT_GE(notices.size(), 2u) << "the user's log was not told of the stop and the start";
}
