#pragma once

#include "cloud/AccountProfile.h"
#include "cloud/DevicePoll.h"
#include "cloud/DeviceStart.h"
#include "cloud/JsonObject.h"
#include "cloud/SharedClip.h"

#include <QByteArray>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <chrono>
#include <optional>

#include <qcoro/qcorotask.h>

class Cancellation;
class QNetworkReply;

// The calls the program makes to its web service. All of them start on the main thread and
// resume there; they throw a CloudError when the service answers no, and a std::runtime_error
// with the network stack's own sentence when no answer came (no network, a bad certificate,
// a time-out). Nothing is retried and nothing is kept between calls.
namespace ClipCloud {

// The shared request: `path` ("/v1/me") is placed under the service's base URL; "Accept:
// application/json" always, the bearer token when given, a compact JSON body when given. With
// `allowPending`, a 204 answer means "nothing yet" and reads as an empty object. A reply
// without a body reads as an empty object, one whose top level is not an object too; a body
// that is not JSON throws, and so does one over CappedReply::answerLimit. A cancelled call
// throws; the canceller is expected to ignore that.
QCoro::Task<JsonObject> request(QString path, QString method, std::optional<QString> token,
                                bool allowPending, std::optional<JsonObject> json,
                                QPointer<Cancellation> cancel = {});

// Turns an HTTP answer that is not a success into a CloudError: 401 is `unauthorized`; any other
// status outside 200–299 a message, which is the JSON "detail" string if there is one, else the
// body as text, else (a body that is not UTF-8) "Request failed.".
void throwIfNeeded(int status, const QByteArray &body);

// Starts a browser sign-in: POST /v1/auth/device. A sign-in page that is not one of the
// service's own (CloudConfig::isServicePage) is refused as a malformed answer.
QCoro::Task<DeviceStart> createDevice(QPointer<Cancellation> cancel = {});
// Asks whether the sign-in with `code` has been approved: GET /v1/auth/device/CODE.
QCoro::Task<DevicePoll> pollDevice(QString code, QPointer<Cancellation> cancel = {});
// The signed-in user's profile: GET /v1/me.
QCoro::Task<AccountProfile> me(QString token);

// Uploads one clip file as a multipart form (its base name as "name", its bytes as "file"),
// streamed from the disk, so a clip of any size costs a few buffers of memory. A file that
// cannot be opened throws before anything is sent.
QCoro::Task<SharedClip> upload(QUrl file, QString token);
// Takes an uploaded clip down, so its link stops working: DELETE /v1/clips/ID.
QCoro::Task<void> deleteClip(QString id, QString token);
// Makes one folder page listing already uploaded clips, in order: POST /v1/packs.
QCoro::Task<QUrl> createPack(QString title, QStringList clipIds, QString token);

// "Boundary-" and a new upper-case UUID: never the same twice, never found in the form's own
// parts.
QByteArray newBoundary();

// How long a call may go without any bytes moving before it fails: 60 s, and 180 s for
// uploads. Tests shorten them.
std::chrono::milliseconds requestTimeout();
std::chrono::milliseconds uploadTimeout();
void setTimeouts(std::chrono::milliseconds request, std::chrono::milliseconds upload);

} // namespace ClipCloud
