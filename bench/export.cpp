// Saving a clip: exportClip() from the call to the final file, for a full 30 s and 120 s buffer
// of 1080p60 H.264 at 18 Mbit/s with system audio, then also with the microphone, against ffmpeg
// doing the same job on the same data side by side (video stream copy plus AAC encoding of the
// same PCM, from files written out beforehand). Runs alternate between the two sides; figures
// are medians.

#include "BenchSupport.h"
#include "TimedProcess.h"

#include "core/ClipSettings.h"
#include "core/SerialQueue.h"
#include "media/Mp4Writer.h"
#include "replay/ClipExport.h"
#include "replay/ReplayBuffer.h"
#include "support/H264TestSource.h"

#include <QDir>
#include <QFile>
#include <QProcess>

#include <cmath>
#include <cstdio>
#include <future>
#include <random>

namespace {

constexpr int runs = 5;
const MediaTime origin = MediaTime::make(100, 1);

// Something closer to what a game plays than a pure tone: a chord that swells and fades, and a
// little noise, so the AAC encoder has real work. Stereo float interleaved, 10 ms packets.
struct Sound
{
    uint32_t seed;

    ReplayBuffer::AudioPacket packet(int64_t index) const
    {
        constexpr int n = PcmTestSource::packetSamples;
        static const auto format = std::make_shared<const AudioFormat>(AudioFormat {48000, 2});
        std::minstd_rand noise(seed + uint32_t(index));
        std::vector<float> pcm(size_t(n) * 2);
        for (int i = 0; i < n; ++i) {
            const double t = double(index * n + i) / 48000;
            const double swell = 0.6 + 0.4 * std::sin(2 * M_PI * 0.5 * t);
            const double chord = std::sin(2 * M_PI * 220 * t) + 0.7 * std::sin(2 * M_PI * 277 * t) +
                0.5 * std::sin(2 * M_PI * 330 * t * (1 + 0.002 * std::sin(2 * M_PI * 3 * t)));
            const double hiss = (double(noise() % 2001) - 1000) / 1000 * 0.03;
            pcm[size_t(2 * i)] = float(0.2 * swell * chord + hiss);
            pcm[size_t(2 * i + 1)] = float(0.2 * swell * chord * 0.8 - hiss);
        }
        const auto *bytes = reinterpret_cast<const uint8_t *>(pcm.data());
        return {Bytes::copy({bytes, pcm.size() * sizeof(float)}),
                origin + MediaTime::make(index * n, 48000), MediaTime::make(n, 48000), n, format};
    }
};

struct Case
{
    int seconds;
    bool mic;
    std::unique_ptr<ReplayBuffer> buffer;
    QString videoFile, audioFile, micFile;
};

AudioSampleBuffer asSample(const ReplayBuffer::AudioPacket &packet)
{
    AudioSampleBuffer sample;
    sample.pts = packet.pts;
    sample.duration = packet.duration;
    sample.numSamples = packet.numSamples;
    sample.format = packet.format;
    sample.owned = packet.data;
    return sample;
}

// The peer's inputs: the clip's frames in an MP4 of their own, and its PCM as raw f32le.
void writePeerInputs(Case &c, const QString &folder)
{
    const ReplayBuffer::Snapshot snap = c.buffer->snapshot();
    size_t first = 0;
    while (!snap.video[first].isKey)
        ++first;
    const MediaTime base = snap.video[first].pts;
    const QString tag = QStringLiteral("%1%2").arg(c.seconds).arg(c.mic ? "m" : "");

    c.videoFile = QDir(folder).filePath(QStringLiteral("video-%1.mp4").arg(tag));
    SerialQueue queue("bench.peer", "vt-bench-peer");
    Mp4Writer writer(c.videoFile, queue);
    std::promise<void> done;
    queue.sync([&] {
        const Mp4Writer::Stream input = *writer.addVideoStream(snap.videoFormat, true);
        writer.writeHeader();
        writer.setTimeOrigin(base);
        for (size_t i = first; i < snap.video.size(); ++i)
            writer.writeSample(input, *makeVideoSample(snap.video[i], snap.videoFormat));
        writer.flush([&] { done.set_value(); });
    });
    done.get_future().wait();

    auto writeRaw = [&](const RecordList<ReplayBuffer::AudioPacket> &list, const QString &name) {
        QFile file(QDir(folder).filePath(name));
        file.open(QIODevice::WriteOnly);
        const MediaTime lead = MediaTime::zero() - ReplayBuffer::audioLead;
        for (const auto &packet : list) {
            if (!(packet.pts - base < lead))
                file.write(reinterpret_cast<const char *>(packet.data.data()),
                           qint64(packet.data.size()));
        }
        return file.fileName();
    };
    c.audioFile = writeRaw(snap.audio, QStringLiteral("audio-%1.raw").arg(tag));
    if (c.mic)
        c.micFile = writeRaw(snap.mic, QStringLiteral("mic-%1.raw").arg(tag));
}

double runOurs(Case &c)
{
    const auto start = std::chrono::steady_clock::now();
    QFuture<WrittenFile> future = ClipExport::exportClip(c.buffer->snapshot());
    future.waitForFinished();
    const double elapsed = bench::secondsSince(start);
    QFile::remove(future.result().path);
    return elapsed;
}

double runPeer(const Case &c, const QString &folder)
{
    const QString out = QDir(folder).filePath(QStringLiteral("peer.mp4"));
    QStringList args {"-nostdin", "-y", "-v", "error", "-i", c.videoFile};
    const QStringList raw {"-f", "f32le", "-ar", "48000", "-ac", "2", "-i"};
    args << raw << c.audioFile;
    if (c.mic)
        args << raw << c.micFile;
    args << "-map"
         << "0:v"
         << "-map"
         << "1:a";
    if (c.mic)
        args << "-map"
             << "2:a";
    // The same AAC encoder settings as ours.
    args << "-c:v"
         << "copy"
         << "-c:a"
         << "aac"
         << "-aac_coder"
         << "fast"
         << "-aac_ms"
         << "0"
         << "-q:a"
         << "1.5"
         << "-b:a"
         << "192k" << out;
    return bench::timedFfmpeg(args, out);
}

} // namespace

int main()
{
    const QString home = QString::fromStdString(bench::isolateHome());
    std::printf("making 1080p60 H.264 at 18 Mbit/s with libx264...\n");
    std::fflush(stdout);
    const H264TestSource video(1920, 1080, 18'000'000);
    std::printf("one group of 120 frames: %.1f MB (%.1f Mbit/s)\n", video.gopBytes() / 1e6,
                video.gopBytes() * 8 / 2.0 / 1e6);
    const Sound system {1}, mic {2};

    std::vector<Case> cases;
    for (const int seconds : {30, 120}) {
        for (const bool withMic : {false, true}) {
            ClipSettings::setMaxDuration(seconds);
            Case c {seconds, withMic, std::make_unique<ReplayBuffer>(), {}, {}, {}};
            // A little more than the clip length, so that the buffer is full and trimmed.
            const int64_t frames = int64_t(seconds + 3) * 60;
            int64_t packet = 0;
            for (int64_t f = 0; f < frames; ++f) {
                ReplayBuffer::EncodedFrame frame = video.frame(f, origin);
                const bool key = frame.isKey;
                c.buffer->appendVideo(std::move(frame), key ? video.format() : nullptr);
                for (; packet * 60 < (f + 1) * 100; ++packet) {
                    c.buffer->appendAudio(asSample(system.packet(packet)));
                    if (withMic)
                        c.buffer->appendMic(asSample(mic.packet(packet)));
                }
            }
            writePeerInputs(c, home);
            cases.push_back(std::move(c));
        }
    }

    double worstRatio = 0, short30 = 0;
    for (Case &c : cases) {
        std::vector<double> ours, peer;
        for (int run = 0; run < runs; ++run) {
            // Alternate so that drift on a shared machine hits both sides alike.
            ours.push_back(runOurs(c));
            peer.push_back(runPeer(c, home));
        }
        const double o = bench::median(ours), p = bench::median(peer);
        worstRatio = std::max(worstRatio, o / p);
        if (c.seconds == 30 && !c.mic)
            short30 = o;
        std::printf("%3d s clip, %-22s exportClip %.3f s, ffmpeg %.3f s, ratio %.2f (medians of "
                    "%d)\n",
                    c.seconds, c.mic ? "system audio and mic:" : "system audio:", o, p, o / p,
                    runs);
        std::fflush(stdout);
    }
    QDir(home).removeRecursively();

    char figure[160];
    std::snprintf(figure, sizeof figure, "30 s clip with system audio %.0f ms, worst ratio %.2f",
                  short30 * 1e3, worstRatio);
    return bench::verdict("export", figure, "30 s clip <= 700 ms, ratio to ffmpeg <= 1.0",
                          short30 <= 0.7 && worstRatio <= 1.0);
}
