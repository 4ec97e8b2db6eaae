#pragma once

#include "promo/AdSlot.h"

#include <QImage>
#include <QPointer>
#include <QWidget>

class QNetworkReply;

// One sponsor card: a rounded card with a dashed gold edge, its content at the bottom left: the
// picture (when the slot has one), the name on one line and the text on at most two. The
// picture loads in the background; until it arrives, and for good when it fails, its frame shows
// a faint fill. Cards are not interactive.
class RailCard : public QWidget
{
    Q_OBJECT

public:
    enum class Picture { none, loading, loaded, failed };

    explicit RailCard(AdSlot slot, QWidget *parent = nullptr);
    ~RailCard() override;

    const AdSlot &adSlot() const { return m_slot; }
    Picture picture() const { return m_picture; }

    bool hasHeightForWidth() const override { return true; }
    int heightForWidth(int width) const override;
    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

signals:
    // The picture arrived or failed.
    void pictureSettled();

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    void loadPicture();
    // The text of the slot's line broken into at most two lines for `width`, the last elided.
    QStringList lineLayout(int width) const;

    AdSlot m_slot;
    Picture m_picture = Picture::none;
    QImage m_image;
    QPointer<QNetworkReply> m_reply;
};
