#include "promo/SponsoredRail.h"

#include "core/Palette.h"
#include "promo/AdsStore.h"
#include "promo/RailCard.h"

#include <QLabel>
#include <QVBoxLayout>

SponsoredRail::SponsoredRail(AdsStore &ads, QWidget *parent)
    : QWidget(parent)
    , m_ads(ads)
{
    setObjectName(QStringLiteral("sponsoredRail"));
    // The rail lies on the content background, also when shown on its own.
    QPalette background = palette();
    background.setColor(QPalette::Window, Palette::vtBg());
    setPalette(background);
    setAutoFillBackground(true);
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(14, 18, 14, 14);
    column->setSpacing(10);

    auto *caption = new QLabel(QStringLiteral("SPONSORED"), this);
    QFont font;
    font.setPixelSize(10);
    font.setWeight(QFont::DemiBold);
    caption->setFont(font);
    QPalette palette = caption->palette();
    palette.setColor(QPalette::WindowText, Palette::white(0.38));
    caption->setPalette(palette);
    column->addWidget(caption);

    m_cards = new QVBoxLayout;
    m_cards->setSpacing(10);
    column->addLayout(m_cards);
    column->addStretch(1);

    connect(&m_ads, &AdsStore::slotListChanged, this, &SponsoredRail::rebuild);
    rebuild();
}

QList<RailCard *> SponsoredRail::cards() const
{
    QList<RailCard *> list;
    for (int i = 0; i < m_cards->count(); ++i) {
        if (auto *card = qobject_cast<RailCard *>(m_cards->itemAt(i)->widget()))
            list << card;
    }
    return list;
}

void SponsoredRail::rebuild()
{
    while (QLayoutItem *item = m_cards->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    for (const AdSlot &slot : m_ads.slotList())
        m_cards->addWidget(new RailCard(slot, this));
}
