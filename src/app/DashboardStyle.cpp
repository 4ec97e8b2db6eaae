#include "app/DashboardStyle.h"

#include "core/Palette.h"

#include <QBoxLayout>
#include <QMouseEvent>
#include <QPainter>
#include <QResizeEvent>
#include <QSvgRenderer>

// The icons live in this static library's resources, which are only linked in when something
// refers to them.
static void initIcons()
{
    Q_INIT_RESOURCE(icons);
}

namespace DashboardStyle {

namespace {

QString rgba(const QColor &color)
{
    return QStringLiteral("rgba(%1,%2,%3,%4)")
        .arg(color.red())
        .arg(color.green())
        .arg(color.blue())
        .arg(color.alpha());
}

} // namespace

QFont font(int pixelSize, QFont::Weight weight)
{
    QFont font;
    font.setPixelSize(pixelSize);
    font.setWeight(weight);
    return font;
}

QPixmap icon(const QString &name, const QColor &color, int size)
{
    static const bool ready = (initIcons(), true);
    Q_UNUSED(ready);
    QSvgRenderer renderer(QStringLiteral(":/icons/%1.svg").arg(name));
    const qreal ratio = 2; // crisp on scaled screens, and costs nothing worth measuring
    QPixmap pixmap(QSize(size, size) * ratio);
    pixmap.fill(Qt::transparent);
    {
        QPainter painter(&pixmap);
        renderer.render(&painter);
        painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
        painter.fillRect(pixmap.rect(), color);
    }
    pixmap.setDevicePixelRatio(ratio);
    return pixmap;
}

void setTextColor(QWidget *widget, const QColor &color)
{
    QPalette palette = widget->palette();
    palette.setColor(QPalette::WindowText, color);
    palette.setColor(QPalette::Text, color);
    widget->setPalette(palette);
}

QLabel *label(const QString &text, int pixelSize, QFont::Weight weight, const QColor &color,
              QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    // Much of what labels show comes from the service (release notes, names, its error
    // sentences); none of it is ever markup to render.
    label->setTextFormat(Qt::PlainText);
    label->setFont(DashboardStyle::font(pixelSize, weight));
    setTextColor(label, color);
    return label;
}

QLabel *caption(const QString &text, QWidget *parent)
{
    return label(text, 10, QFont::DemiBold, Palette::white(0.38), parent);
}

void restyle(QPushButton *button, Look look, const QColor &textColor, int pixelSize)
{
    QString background;
    QString hover;
    QString padding = QStringLiteral("7px 14px");
    QColor text = textColor;
    switch (look) {
    case Look::pill:
        background = rgba(Palette::white(0.08));
        hover = rgba(Palette::white(0.13));
        break;
    case Look::accent:
        background = rgba(Palette::vtGold());
        hover = rgba(Palette::vtGold().lighter(112));
        text = Qt::black;
        break;
    case Look::green:
        background = rgba(QColor::fromRgbF(0.18f, 0.78f, 0.46f));
        hover = rgba(QColor::fromRgbF(0.18f, 0.78f, 0.46f).lighter(112));
        text = Qt::black;
        break;
    case Look::link:
        background = QStringLiteral("transparent");
        hover = rgba(Palette::white(0.06));
        padding = QStringLiteral("4px 6px");
        break;
    }
    QColor disabled = text;
    disabled.setAlphaF(text.alphaF() * 0.45f);
    button->setFont(
        DashboardStyle::font(pixelSize, look == Look::link ? QFont::Normal : QFont::Medium));
    button->setStyleSheet(
        QStringLiteral("QPushButton { color: %1; background: %2; border: none; border-radius: 8px;"
                       " padding: %3; }"
                       "QPushButton:hover { background: %4; }"
                       "QPushButton:disabled { color: %5; }")
            .arg(rgba(text), background, padding, hover, rgba(disabled)));
}

QPushButton *button(const QString &text, const QString &objectName, Look look,
                    const QColor &textColor, int pixelSize, QWidget *parent)
{
    auto *button = new QPushButton(text, parent);
    button->setObjectName(objectName);
    button->setCursor(Qt::PointingHandCursor);
    button->setFocusPolicy(Qt::TabFocus);
    restyle(button, look, textColor, pixelSize);
    return button;
}

QLabel *keyChip(int pixelSize, QWidget *parent)
{
    auto *chip = new QLabel(parent);
    chip->setFont(DashboardStyle::font(pixelSize, QFont::DemiBold));
    chip->setStyleSheet(
        QStringLiteral("QLabel { color: white; background: %1; border: 1px solid %2;"
                       " border-radius: 6px; padding: 3px 8px; }")
            .arg(rgba(Palette::white(0.06)), rgba(Palette::white(0.18))));
    return chip;
}

QLabel *microphoneNote(QWidget *parent)
{
    QLabel *note = label(QStringLiteral("Stop recording to change the microphone."), 12,
                         QFont::Normal, Palette::white(0.5), parent);
    note->setObjectName(QStringLiteral("microphoneNote"));
    note->setWordWrap(true);
    return note;
}

} // namespace DashboardStyle

Card::Card(QWidget *parent, QColor fill)
    : QWidget(parent)
    , m_fill(fill.isValid() ? fill : Palette::vtCard())
{
}

void Card::setClickable(bool clickable)
{
    m_clickable = clickable;
    setCursor(clickable ? Qt::PointingHandCursor : Qt::ArrowCursor);
}

void Card::setFill(const QColor &fill)
{
    m_fill = fill;
    update();
}

void Card::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(m_fill);
    painter.drawRoundedRect(QRectF(rect()), 10, 10);
}

void Card::mousePressEvent(QMouseEvent *event)
{
    m_pressed = m_clickable && event->button() == Qt::LeftButton;
    event->setAccepted(m_clickable);
}

void Card::mouseReleaseEvent(QMouseEvent *event)
{
    const bool click = m_pressed && rect().contains(event->position().toPoint());
    m_pressed = false;
    if (click)
        emit clicked();
}

ElidedLabel::ElidedLabel(const QString &text, QWidget *parent)
    : QLabel(parent)
    , m_text(text)
{
    setTextFormat(Qt::PlainText);
    setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    elide();
}

void ElidedLabel::setFullText(const QString &text)
{
    m_text = text;
    elide();
}

QSize ElidedLabel::minimumSizeHint() const
{
    return {40, QLabel::minimumSizeHint().height()};
}

void ElidedLabel::resizeEvent(QResizeEvent *event)
{
    QLabel::resizeEvent(event);
    elide();
}

void ElidedLabel::elide()
{
    setText(fontMetrics().elidedText(m_text, Qt::ElideMiddle, std::max(40, width())));
    setToolTip(text() == m_text ? QString() : m_text);
}

WrappingRow::WrappingRow(QWidget *parent)
    : QWidget(parent)
    , m_layout(new QBoxLayout(QBoxLayout::LeftToRight, this))
{
    m_layout->setContentsMargins(0, 0, 0, 0);
    m_layout->setSpacing(8);
    // The row may be narrower than its buttons side by side: it then stacks them.
    m_layout->setSizeConstraint(QLayout::SetNoConstraint);
    m_layout->addStretch(1);
}

void WrappingRow::addWidget(QWidget *widget)
{
    m_layout->insertWidget(m_layout->count() - 1, widget, 0, Qt::AlignLeft);
}

QSize WrappingRow::minimumSizeHint() const
{
    int width = 0;
    for (const QWidget *child : findChildren<QWidget *>(Qt::FindDirectChildrenOnly))
        width = std::max(width, child->sizeHint().width());
    return {width, m_layout->minimumSize().height()};
}

void WrappingRow::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    int sideBySide = -m_layout->spacing();
    const QList<QWidget *> children = findChildren<QWidget *>(Qt::FindDirectChildrenOnly);
    // Hidden buttons (Share once a clip has a link) take no room.
    for (const QWidget *child : children)
        if (!child->isHidden())
            sideBySide += child->sizeHint().width() + m_layout->spacing();
    const auto direction = width() < sideBySide ? QBoxLayout::TopToBottom : QBoxLayout::LeftToRight;
    if (m_layout->direction() != direction) {
        m_layout->setDirection(direction);
        updateGeometry();
    }
}

ToggleSwitch::ToggleSwitch(QWidget *parent)
    : QAbstractButton(parent)
{
    setCheckable(true);
    setCursor(Qt::PointingHandCursor);
    setFocusPolicy(Qt::TabFocus);
}

QSize ToggleSwitch::sizeHint() const
{
    return {36, 20};
}

void ToggleSwitch::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    if (!isEnabled())
        painter.setOpacity(0.4);
    const QRectF track = QRectF(0, 0, 36, 20).translated(0, (height() - 20) / 2.0);
    painter.setPen(Qt::NoPen);
    painter.setBrush(isChecked() ? Palette::vtGold() : Palette::white(0.16));
    painter.drawRoundedRect(track, 10, 10);
    const qreal knob = 16;
    const qreal x = isChecked() ? track.right() - 2 - knob : track.left() + 2;
    painter.setBrush(isChecked() ? QColor(Qt::black) : QColor(Qt::white));
    painter.drawEllipse(QRectF(x, track.top() + 2, knob, knob));
}
