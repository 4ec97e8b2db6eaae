#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <optional>

// A release the service offers: its version, what it changes, where its archive is and the
// archive's detached Ed25519 signature (64 raw bytes; empty when the service gave none).
struct AppRelease
{
    QString version;
    QString notes;
    QUrl url;
    QByteArray signature;

    bool operator==(const AppRelease &) const = default;

    // The release described by a version check's reply body, with its archive's location
    // resolved against `base` (the service's address); none when the body is not a JSON object
    // with a string "version". Whether it is newer than this copy is the caller's question.
    static std::optional<AppRelease> fromCheckReply(const QByteArray &body, const QUrl &base);

    // Where a release's archive is when the reply names none usable.
    static QString defaultPath();
};
