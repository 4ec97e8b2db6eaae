#include "engine/ClipSound.h"

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
#include <utility>

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

// The headers are written out by hand and the sample digests were computed apart from this code,
// from the cues' formulas in double precision: any change to a frequency, decay, gain, scale,
// the clipping or the truncation shows up here.
TEST_F(ClipSoundTest, CuesAreWrittenOnceAsTheExpectedWavBytes)
{
    const QString clip = ClipSound::clipURL();
    EXPECT_EQ(ClipSound::clipURL(), clip);
    const QString error = ClipSound::errorURL();
    EXPECT_EQ(ClipSound::errorURL(), error);
    EXPECT_EQ(cueFiles().size(), 2);
    EXPECT_TRUE(QFileInfo(clip).fileName().contains(
        QRegularExpression(QStringLiteral("^vantrel-[0-9A-F-]{36}\\.wav$"))));

    const QByteArray clipWav = readAll(clip);
    EXPECT_EQ(clipWav.size(), 44 + 14112);
    EXPECT_EQ(clipWav.left(44).toHex(),
              "524946464437000057415645666d7420100000000100010044ac0000"
              "88580100020010006461746120370000");
    EXPECT_EQ(QCryptographicHash::hash(clipWav.mid(44), QCryptographicHash::Sha256).toHex(),
              "fce57f2f808f01cfe6475a2eec3e260cf035b5f34a410ac34b32e36d07ecbaba");
    const QByteArray errorWav = readAll(error);
    EXPECT_EQ(errorWav.size(), 44 + 12348);
    EXPECT_EQ(errorWav.left(44).toHex(),
              "524946466030000057415645666d7420100000000100010044ac0000"
              "8858010002001000646174613c300000");
    EXPECT_EQ(QCryptographicHash::hash(errorWav.mid(44), QCryptographicHash::Sha256).toHex(),
              "972f5b8157e228e615fabd8385f7200db80f215dd12f286837612a6ddbb11711");
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
