#pragma once

#include <QAbstractButton>
#include <QColor>
#include <QFont>
#include <QLabel>
#include <QPixmap>
#include <QPushButton>
#include <QWidget>

class QBoxLayout;

// The dashboard's look in one place: fonts, icons, labels and buttons in the palette, and the
// two painted pieces (cards and switches). Sizes are device-independent pixels.
namespace DashboardStyle {

QFont font(int pixelSize, QFont::Weight weight = QFont::Normal);

// One of the program's symbolic icons (":/icons/NAME.svg") in `color`, `size` pixels square.
QPixmap icon(const QString &name, const QColor &color, int size);

// A label that shows its text as plain text, never as markup.
QLabel *label(const QString &text, int pixelSize, QFont::Weight weight, const QColor &color,
              QWidget *parent = nullptr);
// A section caption: capitals, 10 px semibold, white 38%.
QLabel *caption(const QString &text, QWidget *parent = nullptr);
void setTextColor(QWidget *widget, const QColor &color);

enum class Look {
    pill, // white text on white 8%
    accent, // black text on gold
    link, // coloured text, no background
    green, // the update sheet's install button
};
QPushButton *button(const QString &text, const QString &objectName, Look look,
                    const QColor &textColor = Qt::white, int pixelSize = 13,
                    QWidget *parent = nullptr);
void restyle(QPushButton *button, Look look, const QColor &textColor, int pixelSize = 13);

// The key chip: the clip key's name in a bordered box.
QLabel *keyChip(int pixelSize, QWidget *parent = nullptr);

// The line beside the microphone switches while recording: why they do not move. (The
// microphone is a track of the replay; changing it would leave the replay with a track that
// covers only part of it, so it changes between recordings.)
QLabel *microphoneNote(QWidget *parent = nullptr);

} // namespace DashboardStyle

// A rounded rectangle in the card colour; clicking its body emits `clicked` when it is
// clickable (buttons inside it take their own clicks).
class Card : public QWidget
{
    Q_OBJECT

public:
    explicit Card(QWidget *parent = nullptr, QColor fill = QColor());
    void setClickable(bool clickable);
    void setFill(const QColor &fill);

signals:
    void clicked();

protected:
    void paintEvent(QPaintEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;

private:
    QColor m_fill;
    bool m_clickable = false;
    bool m_pressed = false;
};

// One line of text that elides at the right instead of widening its layout.
class ElidedLabel : public QLabel
{
    Q_OBJECT

public:
    explicit ElidedLabel(const QString &text, QWidget *parent = nullptr);
    void setFullText(const QString &text);
    const QString &fullText() const { return m_text; }
    QSize minimumSizeHint() const override;

protected:
    void resizeEvent(QResizeEvent *event) override;

private:
    void elide();

    QString m_text;
};

// A row of buttons that goes down the page instead when the page is too narrow for it, so that a
// narrow window never cuts a button off.
class WrappingRow : public QWidget
{
    Q_OBJECT

public:
    explicit WrappingRow(QWidget *parent = nullptr);
    void addWidget(QWidget *widget);
    QSize minimumSizeHint() const override;

protected:
    void resizeEvent(QResizeEvent *event) override;

private:
    QBoxLayout *m_layout = nullptr;
};

// An on/off switch, painted: a gold track when on.
class ToggleSwitch : public QAbstractButton
{
    Q_OBJECT

public:
    explicit ToggleSwitch(QWidget *parent = nullptr);
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent *event) override;
};
