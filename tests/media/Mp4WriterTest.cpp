#include "media/Mp4Writer.h"
#include "core/SerialQueue.h"
#include "media/RecorderError.h"
#include "replay/ReplayBuffer.h"
#include "support/H264TestSource.h"
#include "support/MediaProbe.h"

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <future>

namespace {

MediaTime seconds(double value)
{
    return MediaTime::fromSeconds(value, 1'000'000);
}

float peak(const std::vector<float> &samples, double from, double to)
{
    float result = 0;
    const size_t begin = size_t(std::max(0.0, from) * 48000);
    const size_t end = std::min(samples.size(), size_t(to * 48000));
    for (size_t i = begin; i < end; ++i)
        result = std::max(result, std::fabs(samples[i]));
    return result;
}

// Waits on the calling thread for the writer's completion, which runs on `queue`.
void finish(SerialQueue &queue, Mp4Writer &writer)
{
    std::promise<void> done;
    queue.sync([&] { writer.flush([&] { done.set_value(); }); });
    done.get_future().wait();
}

class Mp4WriterTest : public ::testing::Test
{
protected:
    QTemporaryDir folder;
    SerialQueue queue {"test.writer", "vt-test-writer"};
    H264TestSource video {320, 240, 1'000'000};
    PcmTestSource tone {1000, 0.3f};
};

// The session recorder's way of using the writer: samples appended as capture delivers them, on
// real-time inputs, with the file's zero at a key frame well into the capture clock.
TEST_F(Mp4WriterTest, WritesAsCaptureArrivesAndKeepsAudioInStep)
{
    const QString path = folder.filePath(QStringLiteral("session.mp4"));
    Mp4Writer writer(path, queue);
    const MediaTime origin = seconds(99.0); // frame 120, a key frame, is at 101 s
    Mp4Writer::Stream videoInput, audioInput;
    queue.sync([&] {
        videoInput = *writer.addVideoStream(video.format(), true);
        audioInput = *writer.addAudioStream({}, true);
        ASSERT_TRUE(writer.writeHeader());
        writer.setTimeOrigin(origin + MediaTime::make(120, 60));
    });

    // Live order: audio every 10 ms, a frame every 1/60 s, from 100 s to 109 s. The audio has
    // a one-second hole from 104 s to 105 s, as when the audio server stalls.
    int refusedVideo = 0, acceptedVideo = 0;
    int64_t packet = 50; // 100.5 s on the audio clock that starts at 100 s
    const MediaTime audioOrigin = seconds(100.0);
    for (int64_t f = 60; f < 600; ++f) {
        const ReplayBuffer::EncodedFrame frame = video.frame(f, origin);
        queue.sync([&] {
            const auto sample = makeVideoSample(frame, video.format());
            (writer.writeSample(videoInput, *sample) ? acceptedVideo : refusedVideo)++;
            for (; (packet + 1) * 10 <= (f + 1) * 1000 / 60 - 1000; ++packet) {
                if (packet >= 400 && packet < 500)
                    continue;
                const auto audio = makeAudioSample(tone.packet(packet, audioOrigin), tone.format());
                EXPECT_TRUE(writer.writeSample(audioInput, *audio));
            }
        });
    }
    EXPECT_EQ(refusedVideo, 60); // the frames before the session's start
    EXPECT_EQ(acceptedVideo, 480);
    finish(queue, writer);
    ASSERT_EQ(writer.status(), Mp4Writer::Status::completed) << writer.error().toStdString();

    const QJsonObject info = probe::ffprobe(path);
    ASSERT_EQ(probe::streams(info, "video").size(), 1);
    ASSERT_EQ(probe::streams(info, "audio").size(), 1);
    const QJsonObject v = probe::streams(info, "video")[0].toObject();
    const QJsonObject a = probe::streams(info, "audio")[0].toObject();
    EXPECT_NEAR(probe::number(v["start_time"]), 0.0, 1e-6);
    EXPECT_NEAR(probe::number(v["duration"]), 8.0, 1e-3);
    EXPECT_EQ(a["codec_name"].toString(), "aac");
    EXPECT_NEAR(probe::number(a["start_time"]), 0.0, 1.0 / 60);
    EXPECT_NEAR(probe::number(a["duration"]), 8.0, 0.05);
    EXPECT_EQ(probe::decodeErrors(path), QString());

    // The hole stays a hole (3 s to 4 s into the file) and what follows is still in its place.
    const std::vector<float> pcm = probe::decodeAudio(path, 0);
    EXPECT_GT(peak(pcm, 0.1, 2.9), 0.25f);
    EXPECT_LT(peak(pcm, 3.05, 3.95), 0.01f);
    EXPECT_GT(peak(pcm, 4.05, 7.9), 0.25f);
}

// Fed from memory, as an export feeds it, the writer cuts an audio track into segments that
// encode on several threads. The joins must not be heard: the decoded track matches the source
// as closely at a join as anywhere else, with nothing lost or repeated.
TEST_F(Mp4WriterTest, SplitsATrackFedFromMemoryWithoutAudibleJoins)
{
    const QString path = folder.filePath(QStringLiteral("export.mp4"));
    const PcmTestSource chord {440, 0.2f, 3000, 0.1f};
    constexpr int64_t frames = 13 * 60, packets = 13 * 100;
    Mp4Writer writer(path, queue);
    std::promise<void> done;
    queue.sync([&] {
        const Mp4Writer::Stream v = *writer.addVideoStream(video.format(), false);
        const Mp4Writer::Stream a = *writer.addAudioStream({}, false);
        ASSERT_TRUE(writer.writeHeader());
        writer.setTimeOrigin(MediaTime::zero());
        auto feeds = std::make_shared<std::array<int64_t, 3>>(); // next frame, next packet, open
        (*feeds)[2] = 2;
        auto finishOne = [&, feeds](Mp4Writer::Stream input) {
            writer.endStream(input);
            if (--(*feeds)[2] == 0)
                writer.flush([&] { done.set_value(); });
        };
        writer.setFeeder(v, [&, v, feeds, finishOne] {
            while (writer.canTakeMore(v)) {
                if ((*feeds)[0] == frames)
                    return finishOne(v);
                const auto frame = video.frame((*feeds)[0]++);
                EXPECT_TRUE(writer.writeSample(v, *makeVideoSample(frame, video.format())));
            }
        });
        writer.setFeeder(a, [&, a, feeds, finishOne] {
            while (writer.canTakeMore(a)) {
                if ((*feeds)[1] == packets)
                    return finishOne(a);
                const auto packet = chord.packet((*feeds)[1]++);
                EXPECT_TRUE(writer.writeSample(a, *makeAudioSample(packet, chord.format())));
            }
        });
    });
    done.get_future().wait();
    ASSERT_EQ(writer.status(), Mp4Writer::Status::completed) << writer.error().toStdString();
    EXPECT_EQ(probe::decodeErrors(path), QString());

    const std::vector<float> decoded = probe::decodeAudio(path, 0);
    ASSERT_GE(decoded.size(), size_t(packets * PcmTestSource::packetSamples));
    // Coding error in 10 ms windows, past the first and before the last tenth of a second.
    std::vector<double> errors;
    for (int64_t w = 10; w < packets - 10; ++w) {
        double sum = 0;
        for (int64_t i = w * 480; i < (w + 1) * 480; ++i) {
            const double e = decoded[size_t(i)] - chord.value(i);
            sum += e * e;
        }
        errors.push_back(std::sqrt(sum / 480));
    }
    std::vector<double> sorted = errors;
    std::sort(sorted.begin(), sorted.end());
    const double median = sorted[sorted.size() / 2];
    const double worst = sorted.back();
    EXPECT_LT(median, 0.01); // well coded at all: 0.3 peak signal, 40 dB below
    EXPECT_LT(worst, 4 * median) << "worst window at "
                                 << (std::max_element(errors.begin(), errors.end()) -
                                     errors.begin() + 10) *
            0.01 << " s";
}

// Refusals come back as false (code 2 through the bridge), faults as exceptions (code 1), and
// neither spoils the file being written.
TEST_F(Mp4WriterTest, RefusesWhatItCannotWriteAndSaysWhy)
{
    queue.sync([&] {
        Mp4Writer lost(folder.filePath(QStringLiteral("missing/clip.mp4")), queue);
        EXPECT_FALSE(lost.addVideoStream(std::make_shared<const VideoFormat>(), false));
        ASSERT_TRUE(lost.addVideoStream(video.format(), false));
        EXPECT_FALSE(lost.writeHeader());
        EXPECT_EQ(lost.status(), Mp4Writer::Status::failed);
        EXPECT_TRUE(lost.error().contains(QStringLiteral("No such file or directory")))
            << lost.error().toStdString();
    });

    const QString path = folder.filePath(QStringLiteral("clip.mp4"));
    Mp4Writer writer(path, queue);
    queue.sync([&] {
        const Mp4Writer::Stream input = *writer.addVideoStream(video.format(), false);
        ASSERT_TRUE(writer.writeHeader());
        EXPECT_FALSE(writer.addAudioStream({}, false)); // too late once writing
        const auto first = *makeVideoSample(video.frame(0), video.format());

        // Faults never escape a write: they come back as code 1 with their message.
        Mp4Writer::WriteError error;
        EXPECT_FALSE(writer.writeSample(input, first, &error)); // before setTimeOrigin
        EXPECT_EQ(error.domain, QStringLiteral("Vantrel"));
        EXPECT_EQ(error.code, Mp4Writer::WriteError::fault);
        EXPECT_EQ(error.description, QStringLiteral("Mp4Writer: a write before setTimeOrigin"));
        EXPECT_FALSE(writer.writeSample(input, first));

        writer.setTimeOrigin(MediaTime::zero());
        MediaSample wrongKind = first;
        wrongKind.kind = MediaSample::Kind::audio;
        error = {};
        EXPECT_FALSE(writer.writeSample(input, wrongKind, &error));
        EXPECT_EQ(error.code, Mp4Writer::WriteError::fault);
        EXPECT_EQ(error.description,
                  QStringLiteral("Mp4Writer: an audio sample for a video stream"));
        error = {};
        EXPECT_FALSE(writer.writeSample(Mp4Writer::Stream {7}, first, &error));
        EXPECT_EQ(error.description, QStringLiteral("Mp4Writer: no such stream"));

        for (int64_t f = 0; f < 240; ++f) {
            const auto sample = *makeVideoSample(video.frame(f), video.format());
            EXPECT_TRUE(writer.writeSample(input, sample));
        }
        // A frame that does not move time forward is refused (code 2), and the writer carries
        // on.
        const auto again = *makeVideoSample(video.frame(200), video.format());
        error = {};
        EXPECT_FALSE(writer.writeSample(input, again, &error));
        EXPECT_EQ(error.domain, QStringLiteral("Vantrel"));
        EXPECT_EQ(error.code, Mp4Writer::WriteError::refused);
        EXPECT_EQ(error.description, QStringLiteral("Could not write a frame into the clip."));
        EXPECT_EQ(writer.status(), Mp4Writer::Status::writing);

        writer.endStream(input);
        const auto late = *makeVideoSample(video.frame(240), video.format());
        EXPECT_FALSE(writer.writeSample(input, late));
    });
    finish(queue, writer);
    EXPECT_EQ(writer.status(), Mp4Writer::Status::completed);
    const QJsonObject v = probe::streams(probe::ffprobe(path), "video")[0].toObject();
    EXPECT_EQ(v["nb_frames"].toString(), "240");
    EXPECT_EQ(probe::decodeErrors(path), QString());
}

} // namespace
