#include "cloud/ClipCloud.h"

#include "cloud/Cancellation.h"
#include "cloud/CappedReply.h"
#include "cloud/CloudConfig.h"
#include "cloud/CloudError.h"
#include "cloud/SharedNetwork.h"
#include "cloud/StreamedPost.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QStringDecoder>
#include <QUuid>

#include <qcoro/qcoronetworkreply.h>

#include <memory>
#include <stdexcept>

using namespace std::chrono_literals;

namespace ClipCloud {

namespace {

std::chrono::milliseconds requestLimit = 60s;
std::chrono::milliseconds uploadLimit = 180s;

// QCoro resumes an awaiting coroutine from inside the reply's finished(), so the reply must
// outlive that signal: it is freed later, never on the spot.
struct DeleteLater
{
    void operator()(QObject *object) const { object->deleteLater(); }
};
using ReplyPtr = std::unique_ptr<QNetworkReply, DeleteLater>;

struct HttpAnswer
{
    int status = 0;
    QByteArray body;
};

[[noreturn]] void fail(const QString &sentence)
{
    throw std::runtime_error(sentence.toStdString());
}

// The endpoint's address under the service's base URL. The base normally has no path; one that
// has (a self-hosted service under /vantrel) keeps it, as the upload's address does.
std::optional<QUrl> endpoint(const QString &path)
{
    const QUrl reference(path, QUrl::StrictMode);
    if (!reference.isValid() || !reference.isRelative() || !path.startsWith(QLatin1Char('/')))
        return std::nullopt;
    QUrl url = CloudConfig::website();
    QString base = url.path(QUrl::FullyEncoded);
    while (base.endsWith(QLatin1Char('/')))
        base.chop(1);
    url.setPath(base + reference.path(QUrl::FullyEncoded), QUrl::StrictMode);
    url.setQuery(reference.query(QUrl::FullyEncoded), QUrl::StrictMode);
    if (!url.isValid())
        return std::nullopt;
    return url;
}

// Waits for the reply and tells an HTTP answer (whatever its status) from a failure to get one.
QCoro::Task<HttpAnswer> await(ReplyPtr reply, QPointer<Cancellation> cancel)
{
    bool aborted = false;
    QMetaObject::Connection abortOnCancel;
    if (cancel) {
        if (cancel->isCancelled()) {
            aborted = true;
            reply->abort();
        } else {
            QNetworkReply *raw = reply.get();
            abortOnCancel =
                QObject::connect(cancel, &Cancellation::cancelled, raw, [raw, &aborted] {
                    aborted = true;
                    raw->abort();
                });
        }
    }
    QCoro::Task<CappedReply::Body> reading =
        CappedReply::read(reply.get(), CappedReply::answerLimit);
    const CappedReply::Body body = co_await reading;
    QObject::disconnect(abortOnCancel);

    const QNetworkReply::NetworkError error = reply->error();
    if (aborted)
        fail(reply->errorString());
    if (body.tooLarge)
        fail(CappedReply::tooLargeText());
    // A transfer time-out ends the reply the way abort() does; only our own flag tells the two
    // apart, and "Operation canceled" would mislead whoever reads it.
    if (error == QNetworkReply::OperationCanceledError)
        fail(QStringLiteral("The request timed out."));
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    // Errors below 200 are the network's and the proxy's (also after the headers arrived, as a
    // connection reset mid-body); from 200 up they mostly mirror the HTTP status, except on a
    // success whose body could not be read (one that fails to decompress, say).
    const bool success = status.toInt() >= 200 && status.toInt() <= 299;
    if (!status.isValid() || (error != QNetworkReply::NoError && (error < 200 || success)))
        fail(reply->errorString());
    co_return HttpAnswer {status.toInt(), body.bytes};
}

} // namespace

std::chrono::milliseconds requestTimeout()
{
    return requestLimit;
}

std::chrono::milliseconds uploadTimeout()
{
    return uploadLimit;
}

void setTimeouts(std::chrono::milliseconds request, std::chrono::milliseconds upload)
{
    requestLimit = request;
    uploadLimit = upload;
}

void throwIfNeeded(int status, const QByteArray &body)
{
    if (status == 401)
        throw CloudError::unauthorized();
    if (status >= 200 && status <= 299)
        return;
    QJsonParseError parseError {};
    const QJsonDocument document = QJsonDocument::fromJson(body, &parseError);
    if (parseError.error == QJsonParseError::NoError && document.isObject()) {
        const QJsonValue detail = document.object().value(QStringLiteral("detail"));
        if (detail.isString())
            throw CloudError::message(detail.toString());
    }
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder.decode(body);
    if (decoder.hasError())
        throw CloudError::message(QStringLiteral("Request failed."));
    throw CloudError::message(text);
}

QCoro::Task<JsonObject> request(QString path, QString method, std::optional<QString> token,
                                bool allowPending, std::optional<JsonObject> json,
                                QPointer<Cancellation> cancel)
{
    const std::optional<QUrl> url = endpoint(path);
    if (!url)
        throw CloudError::message(QStringLiteral("Bad request."));
    QNetworkRequest request(*url);
    request.setTransferTimeout(int(requestLimit.count()));
    request.setRawHeader("Accept", "application/json");
    if (token)
        request.setRawHeader("Authorization", "Bearer " + token->toUtf8());
    QByteArray body;
    if (json) {
        request.setRawHeader("Content-Type", "application/json");
        body = json->serialized();
    }
    ReplyPtr reply(SharedNetwork::manager().sendCustomRequest(request, method.toLatin1(), body));
    const HttpAnswer answer = co_await await(std::move(reply), cancel);

    if (allowPending && answer.status == 204)
        co_return JsonObject();
    throwIfNeeded(answer.status, answer.body);
    if (answer.body.isEmpty())
        co_return JsonObject();
    co_return JsonObject::parse(answer.body);
}

QCoro::Task<DeviceStart> createDevice(QPointer<Cancellation> cancel)
{
    const JsonObject reply =
        co_await request(QStringLiteral("/v1/auth/device"), QStringLiteral("POST"), std::nullopt,
                         false, std::nullopt, cancel);
    const std::optional<QString> code = reply.string(QStringLiteral("code"));
    const std::optional<QUrl> url = reply.link(QStringLiteral("url"));
    // The page opens in the user's browser on the service's word alone: only the service's own
    // pages, never a file, another program's scheme or someone else's site.
    if (!code || !url || !CloudConfig::isServicePage(*url))
        throw CloudError::message(QStringLiteral("Could not start sign-in."));
    co_return DeviceStart {*code, *url};
}

QCoro::Task<DevicePoll> pollDevice(QString code, QPointer<Cancellation> cancel)
{
    // Everything a URL path may carry stays as it is; the rest is percent-encoded.
    const QByteArray encoded = QUrl::toPercentEncoding(code, "!$&'()*+,/:;=@");
    const JsonObject reply =
        co_await request(QStringLiteral("/v1/auth/device/") + QString::fromLatin1(encoded),
                         QStringLiteral("GET"), std::nullopt, true, std::nullopt, cancel);
    const std::optional<QString> token = reply.string(QStringLiteral("token"));
    if (!token || token->isEmpty())
        co_return DevicePoll {};
    co_return DevicePoll {*token};
}

QCoro::Task<AccountProfile> me(QString token)
{
    const JsonObject reply = co_await request(QStringLiteral("/v1/me"), QStringLiteral("GET"),
                                              token, false, std::nullopt);
    co_return AccountProfile::fromJson(reply);
}

QByteArray newBoundary()
{
    return "Boundary-" + QUuid::createUuid().toByteArray(QUuid::WithoutBraces).toUpper();
}

QCoro::Task<SharedClip> upload(QUrl file, QString token)
{
    const QFileInfo info(file.toLocalFile());
    auto content = std::make_unique<QFile>(info.filePath());
    if (!content->open(QIODevice::ReadOnly))
        fail(QStringLiteral("Could not read %1: %2").arg(info.fileName(), content->errorString()));
    const qint64 length = content->size();

    // The body is read from the file as it goes out; the bytes are those of one buffer holding
    // the name part, the file part and the closing boundary, each line ending in CR LF.
    const QByteArray boundary = newBoundary();
    const QByteArray head = "--" + boundary + "\r\n" +
        "Content-Disposition: form-data; name=\"name\"\r\n\r\n" + info.completeBaseName().toUtf8() +
        "\r\n" + "--" + boundary + "\r\n" +
        "Content-Disposition: form-data; name=\"file\"; filename=\"" + info.fileName().toUtf8() +
        "\"\r\n" + "Content-Type: video/mp4\r\n\r\n";
    const QByteArray tail = "\r\n--" + boundary + "--\r\n";
    const StreamedPost::Headers headers {
        {"Authorization", "Bearer " + token.toUtf8()},
        {"Content-Type", "multipart/form-data; boundary=" + boundary}};
    const StreamedPost::Answer answer =
        co_await StreamedPost::send(CloudConfig::appending(QStringLiteral("v1/clips")), headers,
                                    head, std::move(content), length, tail, uploadLimit);

    throwIfNeeded(answer.status, answer.body);
    const JsonObject shared = JsonObject::parse(answer.body);
    const std::optional<QString> id = shared.string(QStringLiteral("id"));
    const std::optional<QUrl> url = shared.link(QStringLiteral("url"));
    if (!id || !url)
        throw CloudError::message(QStringLiteral("Upload did not return a link."));
    co_return SharedClip {*id, *url,
                          shared.string(QStringLiteral("name")).value_or(info.fileName())};
}

QCoro::Task<void> deleteClip(QString id, QString token)
{
    const QByteArray encoded = QUrl::toPercentEncoding(id);
    co_await request(QStringLiteral("/v1/clips/") + QString::fromLatin1(encoded),
                     QStringLiteral("DELETE"), token, false, std::nullopt);
}

QCoro::Task<QUrl> createPack(QString title, QStringList clipIds, QString token)
{
    JsonObject body;
    body.insert(QStringLiteral("title"), title);
    body.insert(QStringLiteral("clip_ids"), QJsonArray::fromStringList(clipIds));
    const JsonObject reply =
        co_await request(QStringLiteral("/v1/packs"), QStringLiteral("POST"), token, false, body);
    const std::optional<QUrl> url = reply.link(QStringLiteral("url"));
    if (!url)
        throw CloudError::message(QStringLiteral("Could not make a folder link."));
    co_return *url;
}

} // namespace ClipCloud
