#include "app/StatusIcon.h"

#include <QGuiApplication>
#include <QPainter>
#include <QPainterPath>
#include <QPalette>

namespace StatusIcon {

namespace {

QPixmap paperclip(int size, const QColor &color)
{
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.scale(size / 32.0, size / 32.0);
    painter.translate(16, 16);
    painter.rotate(40);
    painter.translate(-16, -16);
    // One wire bent into three nested loops, as a paper clip is.
    QPainterPath wire;
    wire.moveTo(19, 11);
    wire.lineTo(19, 24);
    wire.arcTo(13, 21, 6, 6, 0, -180);
    wire.lineTo(13, 7);
    wire.arcTo(13, 3, 8, 8, 180, -180);
    wire.lineTo(21, 24);
    wire.arcTo(10, 18, 11, 11, 0, -180);
    wire.lineTo(10, 11);
    QPen pen(color, 2.4, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    painter.setPen(pen);
    painter.drawPath(wire);
    return pixmap;
}

} // namespace

QIcon make(bool armed)
{
    // The system red of the platform the design came from; the idle icon follows the theme.
    const QColor color =
        armed ? QColor(255, 59, 48) : QGuiApplication::palette().color(QPalette::WindowText);
    QIcon icon;
    for (int size : {16, 22, 24, 32, 48, 64})
        icon.addPixmap(paperclip(size, color));
    return icon;
}

} // namespace StatusIcon
