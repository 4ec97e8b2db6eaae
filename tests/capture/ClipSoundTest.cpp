#include "capture/ClipSound.h"

#include "support/TestEnvironment.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdlib>
#include <thread>

namespace {

uint32_t le(const QByteArray &bytes, int offset, int size)
{
    uint32_t value = 0;
    for (int i = size - 1; i >= 0; --i)
        value = (value << 8) | uint8_t(bytes[offset + i]);
    return value;
}

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void expectWav(const QByteArray &wav, int samples, const char *dataSha256)
{
    ASSERT_EQ(wav.size(), 44 + 2 * samples);
    EXPECT_EQ(wav.left(4), "RIFF");
    EXPECT_EQ(le(wav, 4, 4), uint32_t(36 + 2 * samples));
    EXPECT_EQ(wav.mid(8, 8), "WAVEfmt ");
    EXPECT_EQ(le(wav, 16, 4), 16u);
    EXPECT_EQ(le(wav, 20, 2), 1u);
    EXPECT_EQ(le(wav, 22, 2), 1u);
    EXPECT_EQ(le(wav, 24, 4), 44100u);
    EXPECT_EQ(le(wav, 28, 4), 88200u);
    EXPECT_EQ(le(wav, 32, 2), 2u);
    EXPECT_EQ(le(wav, 34, 2), 16u);
    EXPECT_EQ(wav.mid(36, 4), "data");
    EXPECT_EQ(le(wav, 40, 4), uint32_t(2 * samples));
    EXPECT_EQ(QCryptographicHash::hash(wav.mid(44), QCryptographicHash::Sha256).toHex(),
              QByteArray(dataSha256));
}

class ClipSoundTest : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        ASSERT_TRUE(m_temp.isValid());
        setenv("TMPDIR", QFile::encodeName(m_temp.path()).constData(), 1);
    }

    QStringList cueFiles() const
    {
        return QDir(m_temp.path()).entryList({QStringLiteral("vantrel-*.wav")}, QDir::Files);
    }

    QTemporaryDir m_temp;
};

} // namespace

// The digests were computed apart from this code, from the cues' formulas in double precision;
// any change to a frequency, decay, gain, scale or the truncation shows up here.
TEST_F(ClipSoundTest, CuesAreWrittenOnceAsTheExpectedWavBytes)
{
    const QString clip = ClipSound::clipURL();
    EXPECT_EQ(ClipSound::clipURL(), clip);
    EXPECT_EQ(cueFiles().size(), 1);
    const QString error = ClipSound::errorURL();
    EXPECT_EQ(ClipSound::errorURL(), error);
    EXPECT_NE(clip, error);
    EXPECT_EQ(cueFiles().size(), 2);
    EXPECT_EQ(QFileInfo(clip).dir().path(), QDir(m_temp.path()).path());
    EXPECT_TRUE(QFileInfo(clip).fileName().contains(
        QRegularExpression(QStringLiteral("^vantrel-[0-9A-F-]{36}\\.wav$"))));

    expectWav(readAll(clip), 7056,
              "fce57f2f808f01cfe6475a2eec3e260cf035b5f34a410ac34b32e36d07ecbaba");
    expectWav(readAll(error), 6174,
              "972f5b8157e228e615fabd8385f7200db80f215dd12f286837612a6ddbb11711");

    // The clip cue's louder peaks are clipped at full scale rather than wrapped around.
    const auto samples = ClipSound::clipSamples();
    EXPECT_EQ(samples[3], 24000);
    EXPECT_EQ(samples[100], -8143);
    for (int16_t s : samples)
        ASSERT_LE(std::abs(s), 24000);
    for (int16_t s : ClipSound::errorSamples())
        ASSERT_LE(std::abs(s), 20000);
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
        if (started)
            return;
        started = true;
        ClipSound::playClip();
        ClipSound::playClip();
        QTimer::singleShot(300, &app, [] { std::thread([] { ClipSound::playError(); }).join(); });
        QTimer::singleShot(1500, &app, &QCoreApplication::quit);
    });
    QTimer::singleShot(15000, &app, &QCoreApplication::quit);
    recorder.start(QStringLiteral("parec"),
                   {QStringLiteral("--device=test_null.monitor"), QStringLiteral("--raw"),
                    QStringLiteral("--format=s16le"), QStringLiteral("--channels=1"),
                    QStringLiteral("--rate=44100"), QStringLiteral("--latency-msec=20")});
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
