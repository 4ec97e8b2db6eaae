#include "cloud/CappedReply.h"

#include <QNetworkReply>

#include <qcoro/qcorosignal.h>

#include <algorithm>
#include <memory>

namespace CappedReply {

QCoro::Task<Body> read(QNetworkReply *reply, qint64 limit)
{
    auto body = std::make_shared<Body>();
    const auto refuse = [reply, body] {
        body->tooLarge = true;
        body->bytes.clear();
        reply->abort();
    };
    // A body is read as it comes, so the reply's own buffer never holds more than a block.
    const auto take = [reply, limit, body, refuse] {
        if (body->tooLarge)
            return;
        body->bytes += reply->read(limit + 1 - body->bytes.size());
        if (body->bytes.size() > limit)
            refuse();
    };
    // The announced length is that of the encoded body; the decoded one is never shorter.
    const auto announced = [reply, limit, body, refuse] {
        bool ok = false;
        const qint64 length = reply->header(QNetworkRequest::ContentLengthHeader).toLongLong(&ok);
        if (ok && length > limit && !body->tooLarge)
            refuse();
    };
    // The network stack reads ahead on a thread of its own into a buffer that would otherwise
    // grow without bound while this thread has yet to see the first bytes.
    reply->setReadBufferSize(std::min<qint64>(limit + 1, 256 * 1024));
    QObject::connect(reply, &QNetworkReply::metaDataChanged, reply, announced);
    QObject::connect(reply, &QNetworkReply::readyRead, reply, take);
    if (!reply->isFinished())
        co_await qCoro(reply, &QNetworkReply::finished);
    take();
    co_return *body;
}

QString tooLargeText()
{
    return QStringLiteral("The service's answer was too large.");
}

} // namespace CappedReply
