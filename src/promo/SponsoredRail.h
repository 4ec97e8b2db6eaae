#pragma once

#include <QWidget>

class AdsStore;
class QVBoxLayout;
class RailCard;

// The narrow column of sponsor cards beside the dashboard's content: the caption "SPONSORED"
// and one card per slot of the store, rebuilt whenever the store's list changes.
class SponsoredRail : public QWidget
{
    Q_OBJECT

public:
    explicit SponsoredRail(AdsStore &ads, QWidget *parent = nullptr);

    QList<RailCard *> cards() const;

private:
    void rebuild();

    AdsStore &m_ads;
    QVBoxLayout *m_cards = nullptr;
};
