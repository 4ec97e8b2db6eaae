#include "app/ClipRow.h"

#include "app/AppModel.h"
#include "app/DashboardCallbacks.h"
#include "core/Palette.h"

#include <QClipboard>
#include <QFutureWatcher>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QImage>
#include <QLocale>
#include <QPainter>
#include <QPainterPath>
#include <QVBoxLayout>

#include <cmath>

using namespace DashboardStyle;

namespace {

// The poster's place before it comes, and for a clip that has none (`damaged`).
QPixmap placeholder(bool damaged)
{
    const QSize size = ClipRow::posterSize;
    QPixmap pixmap(size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(Palette::white(0.06));
    painter.drawRoundedRect(QRectF(QPointF(0, 0), size), 5, 5);
    const QPixmap film =
        icon(QStringLiteral("film"), damaged ? Palette::white(0.3) : Palette::vtGold(), 20);
    painter.drawPixmap((size.width() - 20) / 2, (size.height() - 20) / 2, film);
    if (damaged) {
        // A diagonal stroke: this clip could not be read.
        painter.setPen(QPen(Palette::white(0.3), 1.5));
        painter.drawLine(QPointF(size.width() / 2.0 - 14, size.height() / 2.0 + 14),
                         QPointF(size.width() / 2.0 + 14, size.height() / 2.0 - 14));
    }
    return pixmap;
}

// The poster scaled to cover the row's frame, with its corners rounded like the cards'.
QPixmap framed(const QImage &image)
{
    const QSize size = ClipRow::posterSize;
    const QImage cover =
        image.scaled(size, Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation);
    QPixmap pixmap(size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    QPainterPath corners;
    corners.addRoundedRect(QRectF(QPointF(0, 0), size), 5, 5);
    painter.setClipPath(corners);
    painter.drawImage(
        QPoint((size.width() - cover.width()) / 2, (size.height() - cover.height()) / 2), cover);
    return pixmap;
}

} // namespace

QString clipDuration(double seconds)
{
    const long total = std::max(0L, std::lround(seconds));
    if (total >= 3600)
        return QStringLiteral("%1:%2:%3")
            .arg(total / 3600)
            .arg(total / 60 % 60, 2, 10, QLatin1Char('0'))
            .arg(total % 60, 2, 10, QLatin1Char('0'));
    return QStringLiteral("%1:%2").arg(total / 60).arg(total % 60, 2, 10, QLatin1Char('0'));
}

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

    // One arrangement at every width: the buttons sit under the name, in the text column beside
    // the poster, so the card is as tall as the taller of the two and nothing changes places on
    // resize. (Buttons beside the text needed a switch to a stack in a narrow window, and a card
    // whose height lagged the switch drew the buttons over the poster.)
    m_layout = new QHBoxLayout(this);
    m_layout->setContentsMargins(12, 9, 10, 9);
    m_layout->setSpacing(10);
    m_poster = new QLabel(this);
    m_poster->setObjectName(QStringLiteral("clipPoster"));
    m_poster->setFixedSize(posterSize);
    m_poster->setAlignment(Qt::AlignCenter);
    m_poster->setPixmap(placeholder(false));
    m_duration = label(QString(), 10, QFont::DemiBold, Qt::white, m_poster);
    m_duration->setObjectName(QStringLiteral("clipDuration"));
    m_duration->setStyleSheet(
        QStringLiteral("background: rgba(0,0,0,170); border-radius: 3px; padding: 1px 4px;"));
    m_duration->hide();
    m_layout->addWidget(m_poster, 0, Qt::AlignTop);
    auto *text = new QVBoxLayout;
    text->setSpacing(2);
    auto *name = new ElidedLabel(clip.name, this);
    name->setObjectName(QStringLiteral("clipName"));
    name->setFont(DashboardStyle::font(13, QFont::Medium));
    setTextColor(name, Qt::white);
    auto *details = label(clipDetails(clip), 11, QFont::Normal, Palette::white(0.4), this);
    text->addWidget(name);
    text->addWidget(details);
    text->addSpacing(2);
    // In a column too narrow for them side by side, the buttons stack.
    auto *row = new WrappingRow(this);
    m_buttons = row;
    text->addWidget(row);
    text->addStretch(1);
    m_layout->addLayout(text, 1);

    m_sharing = label(QStringLiteral("Sharing…"), 12, QFont::Normal, Palette::white(0.5), this);
    m_sharing->setObjectName(QStringLiteral("sharing"));
    m_sharing->setContentsMargins(6, 0, 6, 0);
    m_share = button(QStringLiteral("Share"), QStringLiteral("share"), Look::link,
                     Palette::vtGold(), 12, this);
    m_copyLink = button(QStringLiteral("Copy link"), QStringLiteral("copyLink"), Look::link,
                        Palette::vtGold(), 12, this);
    auto *trim = button(QStringLiteral("Trim"), QStringLiteral("trim"), Look::link,
                        Palette::white(0.65), 12, this);
    auto *copyFile = button(QStringLiteral("Copy file"), QStringLiteral("copyFile"), Look::link,
                            Palette::white(0.65), 12, this);
    auto *remove = button(QStringLiteral("Delete"), QStringLiteral("delete"), Look::link,
                          Palette::white(0.45), 12, this);
    for (QWidget *widget : {static_cast<QWidget *>(m_sharing), static_cast<QWidget *>(m_share),
                            static_cast<QWidget *>(m_copyLink), static_cast<QWidget *>(trim),
                            static_cast<QWidget *>(copyFile), static_cast<QWidget *>(remove)})
        row->addWidget(widget);

    connect(m_share, &QPushButton::clicked, this, [this] { call(m_callbacks.onShare, m_clip.id); });
    connect(m_copyLink, &QPushButton::clicked, this, [this] {
        const QString link = m_model.shares().value(m_clip.id);
        QClipboard *clipboard = QGuiApplication::clipboard();
        clipboard->clear();
        clipboard->setText(link);
        m_model.setStatus(QStringLiteral("Link copied."));
    });
    connect(trim, &QPushButton::clicked, this, [this] { call(m_callbacks.onTrim, m_clip.id); });
    connect(copyFile, &QPushButton::clicked, this, [this] { call(m_callbacks.onCopy, m_clip.id); });
    connect(remove, &QPushButton::clicked, this, [this] { call(m_callbacks.onDelete, m_clip.id); });

    connect(&m_model, &AppModel::sharesChanged, this, &ClipRow::refreshShare);
    connect(&m_model, &AppModel::uploadingChanged, this, &ClipRow::refreshShare);
    refreshShare();
}

void ClipRow::paintEvent(QPaintEvent *event)
{
    Card::paintEvent(event);
    // Drawn means in view: only then is the poster worth asking for.
    if (!m_askedForPoster) {
        m_askedForPoster = true;
        QMetaObject::invokeMethod(this, &ClipRow::askForPoster, Qt::QueuedConnection);
    }
}

void ClipRow::askForPoster()
{
    if (!m_callbacks.poster)
        return;
    auto *watcher = new QFutureWatcher<ClipPosters::Poster>(this);
    connect(watcher, &QFutureWatcherBase::finished, this, [this, watcher] {
        watcher->deleteLater();
        if (!watcher->future().isCanceled() && watcher->future().resultCount() > 0)
            showPoster(watcher->result());
    });
    watcher->setFuture(m_callbacks.poster(m_clip.id.toLocalFile()));
}

void ClipRow::showPoster(const ClipPosters::Poster &poster)
{
    QImage image;
    // A cached JPEG of a few kilobytes at 320 pixels: reading it here costs well under a
    // millisecond, far less than handing it across threads would save.
    if (poster.hasPoster())
        image.load(poster.image);
    m_poster->setPixmap(image.isNull() ? placeholder(true) : framed(image));
    if (image.isNull())
        m_poster->setToolTip(QStringLiteral("No preview: ") + poster.problem);
    if (poster.seconds) {
        m_duration->setText(clipDuration(*poster.seconds));
        m_duration->adjustSize();
        m_duration->move(posterSize.width() - m_duration->width() - 4,
                         posterSize.height() - m_duration->height() - 4);
        m_duration->show();
    }
}

void ClipRow::refreshShare()
{
    const bool uploading = m_model.uploading().contains(m_clip.id);
    const bool shared = !m_model.shares().value(m_clip.id).isEmpty();
    m_sharing->setVisible(uploading);
    m_share->setVisible(!uploading && !shared);
    m_copyLink->setVisible(!uploading && shared);
}
