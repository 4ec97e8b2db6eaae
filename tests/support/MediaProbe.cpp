#include "support/MediaProbe.h"

#include <QJsonDocument>
#include <QProcess>

#include <cstdlib>
#include <cstring>

namespace probe {

namespace {

QByteArray run(const QString &program, const QStringList &arguments, QByteArray *errors = nullptr)
{
    QProcess process;
    process.setProgram(program);
    process.setArguments(arguments);
    process.start();
    if (!process.waitForFinished(120'000)) {
        process.kill();
        process.waitForFinished();
    }
    if (errors)
        *errors = process.readAllStandardError();
    return process.readAllStandardOutput();
}

} // namespace

QJsonObject ffprobe(const QString &path, const QStringList &extra)
{
    QStringList arguments {QStringLiteral("-v"),           QStringLiteral("error"),
                           QStringLiteral("-of"),          QStringLiteral("json"),
                           QStringLiteral("-show_format"), QStringLiteral("-show_streams")};
    arguments += extra;
    arguments << path;
    return QJsonDocument::fromJson(run(QStringLiteral("ffprobe"), arguments)).object();
}

QJsonArray streams(const QJsonObject &info, const QString &type)
{
    QJsonArray out;
    for (const QJsonValue &stream : info.value(QStringLiteral("streams")).toArray()) {
        if (stream.toObject().value(QStringLiteral("codec_type")).toString() == type)
            out.append(stream);
    }
    return out;
}

QString decodeErrors(const QString &path)
{
    QByteArray errors;
    const QByteArray output =
        run(QStringLiteral("ffmpeg"),
            {QStringLiteral("-nostdin"), QStringLiteral("-v"), QStringLiteral("error"),
             QStringLiteral("-i"), path, QStringLiteral("-f"), QStringLiteral("null"),
             QStringLiteral("-")},
            &errors);
    return QString::fromUtf8(output + errors);
}

std::vector<float> decodeAudio(const QString &path, int index)
{
    const QByteArray raw =
        run(QStringLiteral("ffmpeg"),
            {QStringLiteral("-nostdin"), QStringLiteral("-v"), QStringLiteral("error"),
             QStringLiteral("-i"), path, QStringLiteral("-map"),
             QStringLiteral("0:a:%1").arg(index), QStringLiteral("-af"),
             QStringLiteral("pan=mono|c0=c0"), QStringLiteral("-ar"), QStringLiteral("48000"),
             QStringLiteral("-f"), QStringLiteral("f32le"), QStringLiteral("-")});
    std::vector<float> samples(size_t(raw.size()) / sizeof(float));
    std::memcpy(samples.data(), raw.constData(), samples.size() * sizeof(float));
    return samples;
}

QStringList audioPacketHashes(const QString &path, int index)
{
    return packetHashes(path, QStringLiteral("a:%1").arg(index));
}

QStringList packetHashes(const QString &path, const QString &streams)
{
    const QJsonObject info =
        ffprobe(path,
                {QStringLiteral("-select_streams"), streams, QStringLiteral("-show_packets"),
                 QStringLiteral("-show_data_hash"), QStringLiteral("MD5")});
    QStringList hashes;
    for (const QJsonValue &packet : info.value(QStringLiteral("packets")).toArray())
        hashes << packet.toObject().value(QStringLiteral("data_hash")).toString();
    return hashes;
}

double number(const QJsonValue &value)
{
    return value.isDouble() ? value.toDouble() : value.toString().toDouble();
}

QByteArray grayFrame(const QString &path, double seconds)
{
    QProcess ffmpeg;
    ffmpeg.setStandardErrorFile(QProcess::nullDevice());
    QStringList arguments {QStringLiteral("-v"), QStringLiteral("error")};
    // An image cannot be sought in, not even to its start.
    if (seconds > 0)
        arguments << QStringLiteral("-ss") << QString::number(seconds);
    arguments << QStringLiteral("-i") << path << QStringLiteral("-frames:v") << QStringLiteral("1")
              << QStringLiteral("-vf") << QStringLiteral("scale=160:90,format=gray")
              << QStringLiteral("-f") << QStringLiteral("rawvideo") << QStringLiteral("-");
    ffmpeg.start(QStringLiteral("ffmpeg"), arguments);
    ffmpeg.waitForFinished(30000);
    return ffmpeg.readAllStandardOutput();
}

double meanDifference(const QByteArray &a, const QByteArray &b)
{
    if (a.size() != b.size() || a.isEmpty())
        return -1;
    double sum = 0;
    for (qsizetype i = 0; i < a.size(); ++i)
        sum += std::abs(int(uint8_t(a[i])) - int(uint8_t(b[i])));
    return sum / double(a.size());
}

} // namespace probe
