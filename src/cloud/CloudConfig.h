#pragma once

#include <QString>
#include <QUrl>

// The program's fixed view of its web service: where it is and which version of the program is
// talking to it. Read once, on first use, and unchanged while the program runs.
namespace CloudConfig {

// The service's base URL, an https address with no path. The built-in one comes from the
// VANTREL_SERVICE_URL CMake cache value; the environment variable of the same name points a copy
// at another service (a self-hosted one, or a test's). An environment value that is not an
// absolute https URL (or an http one on this machine, see SecureUrl) is ignored, and the log says
// so once.
const QUrl &website();

// The base URL with path components appended: appending("v1/ads") gives https://host/v1/ads,
// and a base with a path of its own keeps it (https://host/vantrel/v1/ads).
QUrl appending(const QString &components);

// The service's host name, bare ("vantrel.app"), as people are shown it.
QString host();

// Whether `url` is a page of the service's own host over a secure address: the only pages the
// program opens in the browser on the service's word (a sign-in page, say).
bool isServicePage(const QUrl &url);

// The program's own version, compared with the newest release by the update check.
QString appVersion();

} // namespace CloudConfig
