#include "app/MainMenu.h"

#include <QMenuBar>

namespace MainMenu {

const char *const styleSheet =
    "QMenuBar { background: rgb(18,18,23); color: rgba(255,255,255,200); }"
    "QMenuBar::item { padding: 4px 10px; background: transparent; }"
    "QMenuBar::item:selected { background: rgba(255,255,255,30); border-radius: 4px; }"
    "QMenu { background: rgb(30,30,36); color: rgba(255,255,255,220);"
    " border: 1px solid rgba(255,255,255,30); padding: 4px; }"
    "QMenu::item { padding: 5px 24px 5px 14px; border-radius: 4px; }"
    "QMenu::item:selected { background: rgba(245,196,66,60); color: white; }"
    "QMenu::separator { height: 1px; background: rgba(255,255,255,30); margin: 4px 6px; }";

QMenuBar *build(const Actions &actions, QWidget *parent)
{
    auto *bar = new QMenuBar(parent);
    bar->setObjectName(QStringLiteral("mainMenu"));
    bar->setStyleSheet(QString::fromLatin1(styleSheet));

    QMenu *file = bar->addMenu(QStringLiteral("File"));
    file->addAction(QStringLiteral("Close Window"), QKeySequence::Close, actions.closeWindow);
    file->addSeparator();
    file->addAction(QStringLiteral("Quit Vantrel"), QKeySequence(QStringLiteral("Ctrl+Q")),
                    actions.quit);

    QMenu *view = bar->addMenu(QStringLiteral("View"));
    view->addAction(QStringLiteral("Home"), QKeySequence(QStringLiteral("Ctrl+1")),
                    actions.showHome);
    view->addAction(QStringLiteral("Library"), QKeySequence(QStringLiteral("Ctrl+2")),
                    actions.showLibrary);
    view->addAction(QStringLiteral("Settings"), QKeySequence(QStringLiteral("Ctrl+3")),
                    actions.showSettings);

    QMenu *help = bar->addMenu(QStringLiteral("Help"));
    help->addAction(QStringLiteral("About Vantrel"), actions.showAbout);
    return bar;
}

} // namespace MainMenu
