#pragma once

#include <QString>
#include <QUrl>

// Which addresses the program sends tokens to, signs in through or downloads updates from: https
// only, and plain http only to this machine itself (a service run beside the program, or a test's).
// Anything else (http to another host, file:, data:, a scheme some other program handles) is
// refused before a byte moves.
namespace SecureUrl {

// "localhost", 127.0.0.0/8 and ::1.
bool isLoopbackHost(const QString &host);

// An absolute https URL with a host, or an http one whose host is loopback.
bool isSecure(const QUrl &url);

} // namespace SecureUrl
