#include "app/UpdatePanel.h"

#include "app/DashboardStyle.h"
#include "core/Palette.h"
#include "update/UpdateStore.h"

#include <QHBoxLayout>
#include <QPainter>
#include <QVBoxLayout>

using namespace DashboardStyle;

UpdateBadge::UpdateBadge(UpdateStore &updates, QWidget *parent)
    : QPushButton(QStringLiteral("Update available"), parent)
    , m_updates(updates)
{
    setObjectName(QStringLiteral("updateBadge"));
    setToolTip(QStringLiteral("Update Available"));
    setCursor(Qt::PointingHandCursor);
    setFocusPolicy(Qt::TabFocus);
    setIcon(QIcon(DashboardStyle::icon(QStringLiteral("update"), Qt::white, 14)));
    setIconSize(QSize(14, 14));
    restyle(this, Look::green, Qt::white, 12);
    setVisible(m_updates.updateAvailable());
    connect(&m_updates, &UpdateStore::availableChanged, this,
            [this] { setVisible(m_updates.updateAvailable()); });
    connect(this, &QPushButton::clicked, this, [this] { m_updates.setShowSheet(true); });
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
    // Where the install button would be, for a copy that must not replace itself: why, and what
    // to do instead.
    m_cannotUpdate = label(QString(), 13, QFont::Normal, Palette::white(0.8), card);
    m_cannotUpdate->setObjectName(QStringLiteral("cannotUpdate"));
    m_cannotUpdate->setWordWrap(true);
    m_cannotUpdate->setTextInteractionFlags(Qt::TextSelectableByMouse);
    column->addWidget(m_cannotUpdate);
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
    // A copy that must not replace itself says why where the button would be, and so the store's
    // own line, which would say the same after a click, is not needed.
    const QString cannot = m_updates.whyCannotUpdateItself();
    m_cannotUpdate->setText(cannot);
    m_cannotUpdate->setVisible(!cannot.isEmpty());
    m_install->setVisible(cannot.isEmpty());
    m_status->setText(m_updates.status());
    m_status->setVisible(!m_updates.status().isEmpty() && m_updates.status() != cannot);
    m_install->setText(m_updates.busy() ? QStringLiteral("Updating…") : QStringLiteral("Update"));
    m_install->setEnabled(!m_updates.busy());
}

void UpdateSheet::paintEvent(QPaintEvent *)
{
    // The window behind dims while the sheet is up, and takes no clicks.
    QPainter painter(this);
    painter.fillRect(rect(), QColor(0, 0, 0, 150));
}
