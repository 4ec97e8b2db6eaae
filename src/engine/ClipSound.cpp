#include "engine/ClipSound.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QPointer>
#include <QSoundEffect>
#include <QThread>
#include <QUrl>
#include <QUuid>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <vector>

namespace ClipSound {

namespace {

constexpr int sampleRate = 44100;

// Main thread only (see the header).
QString clipFile;
QString errorFile;
// Children of the application object, so that none outlives it at exit.
QPointer<QSoundEffect> clipPlayer;
QPointer<QSoundEffect> errorPlayer;

template<typename Signal> std::vector<int16_t> synthesize(int count, double scale, Signal signal)
{
    std::vector<int16_t> samples(size_t(count), 0);
    for (int i = 0; i < count; ++i) {
        const double t = double(i) / sampleRate;
        // Truncation toward zero, as a plain conversion does.
        samples[size_t(i)] = int16_t(std::clamp(signal(t), -1.0, 1.0) * scale);
    }
    return samples;
}

void putLE(QByteArray &out, uint32_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        out.append(char((value >> (8 * i)) & 0xff));
}

void play(QString (*cueFile)(), QPointer<QSoundEffect> &slot)
{
    QCoreApplication *app = QCoreApplication::instance();
    if (!app)
        return;
    if (QThread::currentThread() != app->thread()) {
        QMetaObject::invokeMethod(
            app, [cueFile, &slot] { play(cueFile, slot); }, Qt::QueuedConnection);
        return;
    }
    auto *player = new QSoundEffect(app);
    player->setSource(QUrl::fromLocalFile(cueFile()));
    player->setVolume(1.0);
    player->play();
    // Keeping the newest player alive lets it finish; the previous one is released here.
    if (slot)
        slot->deleteLater();
    slot = player;
}

std::vector<int16_t> clipSamples()
{
    constexpr double pi = std::numbers::pi;
    return synthesize(7056, 24000, [&](double t) {
        const double click =
            t < 0.006 ? std::sin(2 * pi * 4200 * t) * std::exp(-900 * t) * 0.55 : 0;
        const double toneA = std::sin(2 * pi * 1760 * t) * std::exp(-28 * t) * 0.42;
        const double toneB = std::sin(2 * pi * 784 * t + 0.4) * std::exp(-18 * t) * 0.38;
        return click + toneA + toneB;
    });
}

std::vector<int16_t> errorSamples()
{
    constexpr double pi = std::numbers::pi;
    return synthesize(6174, 20000, [&](double t) {
        return std::sin(2 * pi * 220 * t) * std::exp(-14 * t) * 0.4;
    });
}

QString writeWAV(const std::vector<int16_t> &samples)
{
    const auto dataBytes = uint32_t(samples.size() * 2);
    QByteArray wav;
    wav.reserve(int(44 + dataBytes));
    wav.append("RIFF");
    putLE(wav, 36 + dataBytes, 4);
    wav.append("WAVEfmt ");
    putLE(wav, 16, 4);
    putLE(wav, 1, 2); // PCM
    putLE(wav, 1, 2); // mono
    putLE(wav, sampleRate, 4);
    putLE(wav, sampleRate * 2, 4);
    putLE(wav, 2, 2);
    putLE(wav, 16, 2);
    wav.append("data");
    putLE(wav, dataBytes, 4);
    for (int16_t sample : samples)
        putLE(wav, uint16_t(sample), 2);

    const QString name = QStringLiteral("vantrel-%1.wav")
                             .arg(QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper());
    const QString path = QDir(QDir::tempPath()).filePath(name);
    QFile file(path);
    if (file.open(QIODevice::WriteOnly))
        file.write(wav);
    return path;
}

} // namespace

QString clipCuePath()
{
    if (clipFile.isEmpty())
        clipFile = writeWAV(clipSamples());
    return clipFile;
}

QString errorCuePath()
{
    if (errorFile.isEmpty())
        errorFile = writeWAV(errorSamples());
    return errorFile;
}

void playClip()
{
    play(&clipCuePath, clipPlayer);
}

void playError()
{
    play(&errorCuePath, errorPlayer);
}

} // namespace ClipSound
