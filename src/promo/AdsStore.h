#pragma once

#include "promo/AdSlot.h"

#include <QObject>

namespace QCoro {
template<typename T> class Task;
}

// The sponsor cards of the rail, fetched from the service. Starts with the placeholders and
// replaces the whole list only when a reply yields at least one card, so a failed or empty
// reply leaves what the rail shows. Main thread only; two overlapping refreshes both write, and
// the later reply wins.
class AdsStore : public QObject
{
    Q_OBJECT
    // The store's slots ("slots" itself is a Qt keyword).
    Q_PROPERTY(QList<AdSlot> slotList READ slotList NOTIFY slotListChanged)

public:
    explicit AdsStore(QObject *parent = nullptr);

    const QList<AdSlot> &slotList() const { return m_slots; }

    // Starts a load and returns at once.
    void refresh();
    // GET v1/ads from the service; failures are silent.
    QCoro::Task<void> load();

signals:
    void slotListChanged();

private:
    QList<AdSlot> m_slots;
};
