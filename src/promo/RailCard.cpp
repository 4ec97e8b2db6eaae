#include "promo/RailCard.h"

#include "cloud/SharedNetwork.h"
#include "core/Palette.h"

#include <QFontMetrics>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPainter>
#include <QPainterPath>
#include <QTextLayout>

namespace {

constexpr int padding = 12;
constexpr int spacing = 6;
constexpr int cardMinimumHeight = 120;
constexpr int pictureHeight = 72;
constexpr qreal cornerRadius = 12;
constexpr qreal pictureRadius = 8;
constexpr qint64 largestPictureBytes = 4 << 20;

// Sizes are in device-independent pixels.
QFont railFont(int pixelSize, QFont::Weight weight)
{
    QFont font;
    font.setPixelSize(pixelSize);
    font.setWeight(weight);
    return font;
}

QFont nameFont()
{
    return railFont(13, QFont::DemiBold);
}

QFont lineFont()
{
    return railFont(11, QFont::Normal);
}

} // namespace

RailCard::RailCard(AdSlot slot, QWidget *parent)
    : QWidget(parent)
    , m_slot(std::move(slot))
{
    QSizePolicy policy(QSizePolicy::Preferred, QSizePolicy::Fixed);
    policy.setHeightForWidth(true);
    setSizePolicy(policy);
    setObjectName(QStringLiteral("railCard:") + m_slot.id);
    if (m_slot.imageURL)
        loadPicture();
}

RailCard::~RailCard()
{
    if (m_reply)
        m_reply->abort();
}

void RailCard::loadPicture()
{
    m_picture = Picture::loading;
    QNetworkRequest request(*m_slot.imageURL);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    m_reply = SharedNetwork::manager().get(request);
    // A card's picture is a few hundred kilobytes; a reply past this is dropped as it comes.
    connect(m_reply, &QNetworkReply::downloadProgress, this,
            [reply = m_reply.data()](qint64 received, qint64 total) {
                if (received > largestPictureBytes || total > largestPictureBytes)
                    reply->abort();
            });
    connect(m_reply, &QNetworkReply::finished, this, [this, reply = m_reply.data()] {
        reply->deleteLater();
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        QImage image;
        // A picture is shown at its own pixel size (scale 1), fitted into its frame.
        if (reply->error() == QNetworkReply::NoError && status >= 200 && status <= 299)
            image.loadFromData(reply->readAll());
        if (image.isNull()) {
            m_picture = Picture::failed;
        } else {
            m_image = std::move(image);
            m_picture = Picture::loaded;
        }
        update();
        emit pictureSettled();
    });
}

QStringList RailCard::lineLayout(int width) const
{
    const QFontMetrics metrics(lineFont());
    QTextLayout layout(m_slot.line, lineFont());
    layout.beginLayout();
    QStringList lines;
    while (true) {
        QTextLine line = layout.createLine();
        if (!line.isValid())
            break;
        line.setLineWidth(width);
        if (lines.size() == 1) {
            // The second line takes the rest, elided.
            lines << metrics.elidedText(m_slot.line.mid(line.textStart()).simplified(),
                                        Qt::ElideRight, width);
            break;
        }
        lines << m_slot.line.mid(line.textStart(), line.textLength()).trimmed();
    }
    layout.endLayout();
    return lines;
}

int RailCard::heightForWidth(int width) const
{
    const int inner = std::max(1, width - 2 * padding);
    int height = 2 * padding + QFontMetrics(nameFont()).height() + spacing +
        int(lineLayout(inner).size()) * QFontMetrics(lineFont()).lineSpacing();
    if (m_slot.imageURL)
        height += pictureHeight + spacing;
    return std::max(cardMinimumHeight, height);
}

QSize RailCard::sizeHint() const
{
    return {180, heightForWidth(180)};
}

QSize RailCard::minimumSizeHint() const
{
    return {120, cardMinimumHeight};
}

void RailCard::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);

    // The edge lies inside the outline: half the pen's width in from the widget's border.
    const QRectF outline = QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5);
    QPainterPath card;
    card.addRoundedRect(outline, cornerRadius, cornerRadius);
    painter.fillPath(card, Palette::vtCard());
    QPen edge(Palette::vtGold(0.28), 1);
    edge.setDashPattern({5, 4});
    edge.setMiterLimit(10);
    painter.strokePath(card, edge);

    // Content from the bottom up: the line, the name, then the picture.
    const int inner = width() - 2 * padding;
    const QStringList lines = lineLayout(inner);
    const QFontMetrics lineMetrics(lineFont());
    const QFontMetrics nameMetrics(nameFont());
    int y = height() - padding - int(lines.size()) * lineMetrics.lineSpacing();
    painter.setFont(lineFont());
    painter.setPen(Palette::white(0.45));
    for (int i = 0; i < lines.size(); ++i)
        painter.drawText(padding, y + i * lineMetrics.lineSpacing() + lineMetrics.ascent(),
                         lines[i]);

    y -= spacing + nameMetrics.height();
    painter.setFont(nameFont());
    painter.setPen(Qt::white);
    painter.drawText(padding, y + nameMetrics.ascent(),
                     nameMetrics.elidedText(m_slot.name, Qt::ElideRight, inner));

    if (m_picture == Picture::none)
        return;
    y -= spacing + pictureHeight;
    const QRectF frame(padding, y, inner, pictureHeight);
    QPainterPath clip;
    if (m_picture == Picture::loaded) {
        const QSizeF fitted = QSizeF(m_image.size()).scaled(frame.size(), Qt::KeepAspectRatio);
        // Fitted into the frame: at its leading edge, centred in its height.
        const QRectF target(QPointF(frame.left(), frame.center().y() - fitted.height() / 2),
                            fitted);
        clip.addRoundedRect(target, pictureRadius, pictureRadius);
        painter.setClipPath(clip);
        painter.setRenderHint(QPainter::SmoothPixmapTransform);
        painter.drawImage(target, m_image);
    } else {
        clip.addRoundedRect(frame, pictureRadius, pictureRadius);
        painter.fillPath(clip, Palette::white(0.06));
    }
}
