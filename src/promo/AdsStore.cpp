#include "promo/AdsStore.h"

#include "cloud/CappedReply.h"
#include "cloud/CloudConfig.h"
#include "cloud/SharedNetwork.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>

#include <qcoro/qcoronetworkreply.h>
#include <qcoro/qcorotask.h>

AdsStore::AdsStore(QObject *parent)
    : QObject(parent)
    , m_slots(AdSlot::placeholders())
{
}

void AdsStore::refresh()
{
    load();
}

QCoro::Task<void> AdsStore::load()
{
    QPointer<AdsStore> self(this);
    QNetworkReply *reply = SharedNetwork::manager().get(
        QNetworkRequest(CloudConfig::appending(QStringLiteral("v1/ads"))));
    QCoro::Task<CappedReply::Body> reading = CappedReply::read(reply, CappedReply::answerLimit);
    const CappedReply::Body body = co_await reading;
    reply->deleteLater();
    if (!self)
        co_return;
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (body.tooLarge || status < 200 || status > 299)
        co_return;
    const std::optional<QList<AdSlot>> cards =
        AdSlot::listFromReply(body.bytes, CloudConfig::website());
    if (!cards || cards->isEmpty())
        co_return;
    m_slots = *cards;
    emit slotListChanged();
}
