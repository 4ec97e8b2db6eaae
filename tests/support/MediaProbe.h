#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <vector>

// Looks at written files with the real FFmpeg tools, run as processes, the way a user's player
// would see them.
namespace probe {

// ffprobe's JSON for `path` with -show_format -show_streams and `extra` (e.g. -show_packets);
// empty when ffprobe fails.
QJsonObject ffprobe(const QString &path, const QStringList &extra = {});

// The streams of `info` of one type ("video", "audio"), in file order.
QJsonArray streams(const QJsonObject &info, const QString &type);

// What `ffmpeg -v error -i path -f null -` prints: empty for a file that decodes end to end.
QString decodeErrors(const QString &path);

// The decoded left channel of audio stream `index` as float samples at 48 kHz.
std::vector<float> decodeAudio(const QString &path, int index);

// A hash of each packet of audio stream `index`, in file order: equal hashes, equal bytes.
QStringList audioPacketHashes(const QString &path, int index);
// The same for the streams ffprobe's `-select_streams` picks ("v:0").
QStringList packetHashes(const QString &path, const QString &streams);

// One decoded video frame at `seconds`, as 8-bit gray at 160×90; empty when it cannot be had.
QByteArray grayFrame(const QString &path, double seconds);

// The mean difference of two gray frames per pixel (0 to 255); -1 when they cannot be compared.
double meanDifference(const QByteArray &a, const QByteArray &b);

// A number held as text in ffprobe's JSON ("0.016667").
double number(const QJsonValue &value);

} // namespace probe
