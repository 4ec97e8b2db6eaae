#include "app/MainMenu.h"

#include <QApplication>
#include <QMenuBar>
#include <QWidget>

namespace MainMenu {

namespace {

// Edit actions go to whichever text field has the focus, as the platform's responder chain
// would send them.
void sendToFocus(const char *method)
{
    if (QWidget *focus = QApplication::focusWidget())
        QMetaObject::invokeMethod(focus, method);
}

} // namespace

QMenuBar *build(const Actions &actions, QWidget *parent)
{
    auto *bar = new QMenuBar(parent);

    QMenu *file = bar->addMenu(QStringLiteral("File"));
    file->addAction(QStringLiteral("Close Window"), QKeySequence::Close, [] {
        if (QWidget *window = QApplication::activeWindow())
            window->close();
    });
    file->addSeparator();
    file->addAction(QStringLiteral("Quit Vantrel"), QKeySequence(QStringLiteral("Ctrl+Q")),
                    actions.quit);

    QMenu *edit = bar->addMenu(QStringLiteral("Edit"));
    edit->addAction(QStringLiteral("Undo"), QKeySequence::Undo, [] { sendToFocus("undo"); });
    edit->addAction(QStringLiteral("Redo"), QKeySequence(QStringLiteral("Ctrl+Shift+Z")),
                    [] { sendToFocus("redo"); });
    edit->addSeparator();
    edit->addAction(QStringLiteral("Cut"), QKeySequence::Cut, [] { sendToFocus("cut"); });
    edit->addAction(QStringLiteral("Copy"), QKeySequence::Copy, [] { sendToFocus("copy"); });
    edit->addAction(QStringLiteral("Paste"), QKeySequence::Paste, [] { sendToFocus("paste"); });
    edit->addAction(QStringLiteral("Select All"), QKeySequence::SelectAll,
                    [] { sendToFocus("selectAll"); });

    QMenu *window = bar->addMenu(QStringLiteral("Window"));
    window->addAction(QStringLiteral("Vantrel"), QKeySequence(QStringLiteral("Ctrl+0")),
                      actions.openWindow);
    window->addSeparator();
    window->addAction(QStringLiteral("Minimize"), QKeySequence(QStringLiteral("Ctrl+M")), [] {
        if (QWidget *active = QApplication::activeWindow())
            active->showMinimized();
    });

    QMenu *help = bar->addMenu(QStringLiteral("Help"));
    help->addAction(QStringLiteral("About Vantrel"), actions.showAbout);
    return bar;
}

} // namespace MainMenu
