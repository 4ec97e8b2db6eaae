#include "app/UpdatePanel.h"

#include "app/DashboardStyle.h"
#include "promo/Palette.h"
#include "update/UpdateStore.h"

#include <QHBoxLayout>
#include <QMouseEvent>
#include <QPainter>
#include <QVBoxLayout>

using namespace DashboardStyle;

UpdateBadge::UpdateBadge(UpdateStore &updates, QWidget *parent)
    : QWidget(parent)
    , m_updates(updates)
{
    setObjectName(QStringLiteral("updateBadge"));
    setToolTip(QStringLiteral("Update Available"));
    setCursor(Qt::PointingHandCursor);
    setFixedSize(sizeHint());
    setVisible(m_updates.updateAvailable());
    connect(&m_updates, &UpdateStore::availableChanged, this,
            [this] { setVisible(m_updates.updateAvailable()); });
}

QSize UpdateBadge::sizeHint() const
{
    return {30, 30};
}

void UpdateBadge::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF circle = QRectF(rect()).adjusted(2, 2, -2, -2);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0, 0, 0, 90));
    painter.drawEllipse(circle.translated(0, 1)); // the shadow
    QLinearGradient fill(circle.topLeft(), circle.bottomRight());
    fill.setColorAt(0, QColor(72, 214, 140));
    fill.setColorAt(1, QColor(30, 160, 100));
    painter.setBrush(fill);
    painter.drawEllipse(circle);
    const QPixmap arrow = icon(QStringLiteral("update"), Qt::white, 16);
    painter.drawPixmap((width() - 16) / 2, (height() - 16) / 2, arrow);
}

void UpdateBadge::mouseReleaseEvent(QMouseEvent *event)
{
    if (rect().contains(event->position().toPoint()))
        m_updates.setShowSheet(true);
}

UpdateSheet::UpdateSheet(UpdateStore &updates, QWidget *parent)
    : QWidget(parent)
    , m_updates(updates)
{
    setObjectName(QStringLiteral("updateSheet"));
    auto *outer = new QVBoxLayout(this);
    outer->setAlignment(Qt::AlignCenter);
    auto *card = new Card(this, QColor(30, 30, 36));
    card->setFixedWidth(380);
    outer->addWidget(card, 0, Qt::AlignCenter);
    auto *column = new QVBoxLayout(card);
    column->setContentsMargins(22, 20, 22, 18);
    column->setSpacing(8);
    column->addWidget(
        label(QStringLiteral("Update available"), 18, QFont::DemiBold, Qt::white, card));
    m_version = label(QString(), 13, QFont::Normal, Palette::white(0.7), card);
    m_notes = label(QString(), 13, QFont::Normal, Palette::white(0.55), card);
    m_notes->setWordWrap(true);
    m_status = label(QString(), 12, QFont::Normal, Palette::white(0.55), card);
    m_status->setWordWrap(true);
    column->addWidget(m_version);
    column->addWidget(m_notes);
    column->addWidget(m_status);
    auto *buttons = new QHBoxLayout;
    buttons->addStretch(1);
    auto *later = button(QStringLiteral("Later"), QStringLiteral("updateLater"), Look::pill,
                         Palette::white(0.6), 13, card);
    m_install =
        button(QString(), QStringLiteral("updateInstall"), Look::green, Qt::white, 13, card);
    buttons->addWidget(later);
    buttons->addWidget(m_install);
    column->addSpacing(6);
    column->addLayout(buttons);

    connect(later, &QPushButton::clicked, this, [this] { m_updates.setShowSheet(false); });
    connect(m_install, &QPushButton::clicked, &m_updates, &UpdateStore::install);
    for (auto signal : {&UpdateStore::availableChanged, &UpdateStore::showSheetChanged,
                        &UpdateStore::statusChanged, &UpdateStore::busyChanged})
        connect(&m_updates, signal, this, &UpdateSheet::redraw);
    redraw();
}

void UpdateSheet::redraw()
{
    const bool open = m_updates.showSheet() && m_updates.updateAvailable();
    setVisible(open);
    if (open)
        raise();
    m_version->setText(QStringLiteral("Version ") + m_updates.availableVersion());
    const QString notes = m_updates.availableNotes().trimmed();
    m_notes->setText(notes.isEmpty() ? QStringLiteral("Bug fixes and improvements.") : notes);
    m_status->setText(m_updates.status());
    m_status->setVisible(!m_updates.status().isEmpty());
    m_install->setText(m_updates.busy() ? QStringLiteral("Updating…") : QStringLiteral("Update"));
    m_install->setEnabled(!m_updates.busy());
}

void UpdateSheet::paintEvent(QPaintEvent *)
{
    // The window behind dims while the sheet is up, and takes no clicks.
    QPainter painter(this);
    painter.fillRect(rect(), QColor(0, 0, 0, 150));
}
