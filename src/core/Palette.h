#pragma once

#include <QColor>

// The colours of the program's window: the dashboard, its menus and sheets, and the sponsored rail
// beside it. Header-only; its users draw with Qt Gui, which they link themselves (core does not).
namespace Palette {

// Text and fills are white at various opacities on the dark background.
inline QColor white(double opacity)
{
    return QColor::fromRgbF(1, 1, 1, float(opacity));
}

// Accent: the app badge, clip icons, the selected clip length, the rail cards' edges.
inline QColor vtGold(double opacity = 1)
{
    return QColor::fromRgbF(0.96f, 0.77f, 0.26f, float(opacity));
}
// Content background.
inline QColor vtBg()
{
    return QColor::fromRgbF(0.05f, 0.05f, 0.065f);
}
// Sidebar and panels.
inline QColor vtPanel()
{
    return QColor::fromRgbF(0.078f, 0.078f, 0.095f);
}
// Cards and rows.
inline QColor vtCard()
{
    return white(0.045);
}

} // namespace Palette
