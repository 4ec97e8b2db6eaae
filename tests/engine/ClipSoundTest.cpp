#include "engine/ClipSound.h"

#include "support/TestEnvironment.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdlib>
#include <thread>
#include <utility>
#include <vector>

namespace {

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

class ClipSoundTest : public TempHomeTest
{
protected:
    void SetUp() override { TempHomeTest::SetUp(); }

    QStringList cueFiles() const
    {
        return QDir(tempFolder()).entryList({QStringLiteral("vantrel-*.wav")}, QDir::Files);
    }
};

} // namespace

// The 16-bit samples after a WAV file's 44-byte header.
std::vector<int16_t> samplesOf(const QByteArray &wav)
{
    std::vector<int16_t> samples;
    for (qsizetype i = 44; i + 1 < wav.size(); i += 2)
        samples.push_back(int16_t(uint8_t(wav[i]) | uint8_t(wav[i + 1]) << 8));
    return samples;
}

int zeroCrossings(const std::vector<int16_t> &samples)
{
    int crossings = 0;
    for (size_t i = 1; i < samples.size(); ++i)
        crossings += (samples[i - 1] < 0) != (samples[i] < 0);
    return crossings;
}

// Each cue is written once, as a mono 16-bit WAV of its length (the header written out by hand):
// the clip cue bright and loud up to its scale, the error cue a low tone, both fading out so that
// they end without a click.
TEST_F(ClipSoundTest, CuesAreWrittenOnceAsShortMonoWavs)
{
    const QString clip = ClipSound::clipCuePath();
    EXPECT_EQ(ClipSound::clipCuePath(), clip);
    const QString error = ClipSound::errorCuePath();
    EXPECT_EQ(ClipSound::errorCuePath(), error);
    EXPECT_EQ(cueFiles().size(), 2);
    EXPECT_TRUE(QFileInfo(clip).fileName().contains(
        QRegularExpression(QStringLiteral("^vantrel-[0-9A-F-]{36}\\.wav$"))));

    const QByteArray clipWav = readAll(clip);
    EXPECT_EQ(clipWav.size(), 44 + 14112);
    EXPECT_EQ(clipWav.left(44).toHex(),
              "524946464437000057415645666d7420100000000100010044ac0000"
              "88580100020010006461746120370000");
    const QByteArray errorWav = readAll(error);
    EXPECT_EQ(errorWav.size(), 44 + 12348);
    EXPECT_EQ(errorWav.left(44).toHex(),
              "524946466030000057415645666d7420100000000100010044ac0000"
              "8858010002001000646174613c300000");

    const auto peak = [](const std::vector<int16_t> &samples) {
        int most = 0;
        for (int16_t sample : samples)
            most = std::max(most, std::abs(int(sample)));
        return most;
    };
    const std::vector<int16_t> clipSamples = samplesOf(clipWav);
    const std::vector<int16_t> errorSamples = samplesOf(errorWav);
    ASSERT_EQ(clipSamples.size(), 7056u);
    ASSERT_EQ(errorSamples.size(), 6174u);
    const auto tail = [](const std::vector<int16_t> &samples) {
        return std::vector<int16_t>(samples.end() - samples.size() / 10, samples.end());
    };
    EXPECT_LT(peak(tail(clipSamples)) * 4, peak(clipSamples));
    EXPECT_LT(peak(tail(errorSamples)) * 2, peak(errorSamples));
    EXPECT_LE(peak(clipSamples), 24000);
    EXPECT_GT(peak(clipSamples), 12000);
    EXPECT_LE(peak(errorSamples), 20000);
    EXPECT_GT(peak(errorSamples), 6000);
    // 220 Hz for 0.14 s crosses zero about 62 times; the clip cue's 1760 Hz and 784 Hz far more.
    EXPECT_NEAR(zeroCrossings(errorSamples), 62, 3);
    EXPECT_GT(zeroCrossings(clipSamples), 300);
}

// Playing goes through the real audio server: what the null sink hears must be loud, plays from
// another thread are handed to the main thread, and no play writes a second file for a cue.
TEST_F(ClipSoundTest, PlayingIsHeardAndReusesTheCueFiles)
{
    int argc = 1;
    char name[] = "clip_sound_test";
    char *argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);

    QProcess recorder;
    QByteArray pcm;
    bool started = false;
    // The cues are played only once the recorder delivers, so none falls before it listens.
    QObject::connect(&recorder, &QProcess::readyReadStandardOutput, &app, [&] {
        pcm += recorder.readAllStandardOutput();
        if (std::exchange(started, true))
            return;
        ClipSound::playClip();
        ClipSound::playClip();
        QTimer::singleShot(300, &app, [] { std::thread([] { ClipSound::playError(); }).join(); });
        QTimer::singleShot(1500, &app, &QCoreApplication::quit);
    });
    QTimer::singleShot(15000, &app, &QCoreApplication::quit);
    recorder.start(QStringLiteral("parec"),
                   {QStringLiteral("--device=test_null.monitor"), QStringLiteral("--raw"),
                    QStringLiteral("--format=s16le"), QStringLiteral("--channels=1"),
                    QStringLiteral("--latency-msec=20")});
    ASSERT_TRUE(recorder.waitForStarted());
    app.exec();
    recorder.terminate();
    recorder.waitForFinished();

    int peak = 0;
    for (qsizetype i = 0; i + 1 < pcm.size(); i += 2)
        peak = std::max(peak, std::abs(int(int16_t(uint8_t(pcm[i]) | uint8_t(pcm[i + 1]) << 8))));
    EXPECT_GT(peak, 8000) << pcm.size() << " bytes recorded";
    EXPECT_EQ(cueFiles().size(), 2);
}
