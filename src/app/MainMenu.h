#pragma once

#include <functional>

class QMenuBar;
class QWidget;

// The window's menu bar, in the window's dark look, holding only what works in a window without
// text fields: File (Close Window, Quit Vantrel), View (the three tabs), Help (About Vantrel).
namespace MainMenu {

struct Actions
{
    std::function<void()> closeWindow;
    std::function<void()> quit;
    std::function<void()> showHome;
    std::function<void()> showLibrary;
    std::function<void()> showSettings;
    std::function<void()> showAbout;
};

QMenuBar *build(const Actions &actions, QWidget *parent = nullptr);

// The look of the bar and of its menus; menus and dialogs of the window share it.
extern const char *const styleSheet;

} // namespace MainMenu
