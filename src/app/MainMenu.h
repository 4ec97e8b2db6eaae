#pragma once

#include <functional>

class QMenuBar;
class QWidget;

// The program's main menu (File, Edit, Window, Help), carried by the dashboard window.
namespace MainMenu {

struct Actions
{
    std::function<void()> openWindow;
    std::function<void()> showAbout;
    std::function<void()> quit;
};

QMenuBar *build(const Actions &actions, QWidget *parent = nullptr);

} // namespace MainMenu
