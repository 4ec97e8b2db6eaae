#pragma once

#include <QByteArray>
#include <QString>

// Ed25519 signatures of release archives: 64 raw bytes over the whole archive file, made with the
// packager's private key (scripts/package --sign, or `openssl pkeyutl -sign -rawin`).
namespace ReleaseSignature {

// Archives are tens of megabytes; anything past this is not one of ours (and is neither
// downloaded nor checked).
constexpr qint64 largestArchiveBytes = qint64(2) << 30;

// The 32 raw bytes of the public key this program was built to trust.
QByteArray builtInKey();

// True when `signature` is a valid signature of the file at `path` by `publicKey` (32 raw
// bytes). Anything unreadable or malformed is simply not valid.
bool verify(const QString &path, const QByteArray &signature,
            const QByteArray &publicKey = builtInKey());

} // namespace ReleaseSignature
