#include "app/ClipRow.h"

#include "app/AppModel.h"
#include "app/DashboardCallbacks.h"
#include "core/Palette.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLocale>
#include <QVBoxLayout>

using namespace DashboardStyle;

QString clipDetails(const ClipFile &clip)
{
    return QLocale().toString(clip.date.toLocalTime(), QStringLiteral("d MMM yyyy, HH:mm")) +
        QStringLiteral(" · ") + clip.size;
}

ClipRow::ClipRow(const ClipFile &clip, AppModel &model, const DashboardCallbacks &callbacks,
                 QWidget *parent)
    : Card(parent)
    , m_clip(clip)
    , m_model(model)
    , m_callbacks(callbacks)
{
    setObjectName(QStringLiteral("clipRow:") + clip.name);
    setClickable(true);
    setToolTip(QStringLiteral("Open ") + clip.name);
    connect(this, &Card::clicked, this, [this] { call(m_callbacks.onOpen, m_clip.id); });

    m_layout = new QBoxLayout(QBoxLayout::LeftToRight, this);
    m_layout->setContentsMargins(12, 9, 10, 9);
    m_layout->setSpacing(6);

    auto *about = new QHBoxLayout;
    about->setSpacing(10);
    auto *film = new QLabel(this);
    film->setPixmap(icon(QStringLiteral("film"), Palette::vtGold(), 18));
    about->addWidget(film);
    auto *text = new QVBoxLayout;
    text->setSpacing(2);
    auto *name = new ElidedLabel(clip.name, this);
    name->setObjectName(QStringLiteral("clipName"));
    name->setFont(DashboardStyle::font(13, QFont::Medium));
    setTextColor(name, Qt::white);
    auto *details = label(clipDetails(clip), 11, QFont::Normal, Palette::white(0.4), this);
    text->addWidget(name);
    text->addWidget(details);
    about->addLayout(text, 1);
    m_layout->addLayout(about, 1);

    auto *row = new QHBoxLayout;
    row->setSpacing(2);
    m_layout->addLayout(row);

    m_sharing = label(QStringLiteral("Sharing…"), 12, QFont::Normal, Palette::white(0.5), this);
    m_sharing->setObjectName(QStringLiteral("sharing"));
    m_sharing->setContentsMargins(6, 0, 6, 0);
    m_share = button(QStringLiteral("Share"), QStringLiteral("share"), Look::link,
                     Palette::vtGold(), 12, this);
    m_copyLink = button(QStringLiteral("Copy link"), QStringLiteral("copyLink"), Look::link,
                        Palette::vtGold(), 12, this);
    auto *copyFile = button(QStringLiteral("Copy file"), QStringLiteral("copyFile"), Look::link,
                            Palette::white(0.65), 12, this);
    auto *remove = button(QStringLiteral("Delete"), QStringLiteral("delete"), Look::link,
                          Palette::white(0.45), 12, this);
    for (QWidget *widget : {static_cast<QWidget *>(m_sharing), static_cast<QWidget *>(m_share),
                            static_cast<QWidget *>(m_copyLink), static_cast<QWidget *>(copyFile),
                            static_cast<QWidget *>(remove)})
        row->addWidget(widget);
    row->addStretch(0);

    connect(m_share, &QPushButton::clicked, this, [this] { call(m_callbacks.onShare, m_clip.id); });
    connect(m_copyLink, &QPushButton::clicked, this, [this] {
        const QString link = m_model.shares().value(m_clip.id);
        QClipboard *clipboard = QGuiApplication::clipboard();
        clipboard->clear();
        clipboard->setText(link);
        m_model.setStatus(QStringLiteral("Link copied."));
    });
    connect(copyFile, &QPushButton::clicked, this, [this] { call(m_callbacks.onCopy, m_clip.id); });
    connect(remove, &QPushButton::clicked, this, [this] { call(m_callbacks.onDelete, m_clip.id); });

    connect(&m_model, &AppModel::sharesChanged, this, &ClipRow::refreshShare);
    connect(&m_model, &AppModel::uploadingChanged, this, &ClipRow::refreshShare);
    refreshShare();
}

void ClipRow::resizeEvent(QResizeEvent *event)
{
    Card::resizeEvent(event);
    // In a narrow window the buttons go under the name rather than squeeze it away.
    const auto direction = width() < 470 ? QBoxLayout::TopToBottom : QBoxLayout::LeftToRight;
    if (m_layout->direction() != direction)
        m_layout->setDirection(direction);
}

void ClipRow::refreshShare()
{
    const bool uploading = m_model.uploading().contains(m_clip.id);
    const bool shared = !m_model.shares().value(m_clip.id).isEmpty();
    m_sharing->setVisible(uploading);
    m_share->setVisible(!uploading && !shared);
    m_copyLink->setVisible(!uploading && shared);
}
