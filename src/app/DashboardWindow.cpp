#include "app/DashboardWindow.h"

#include "app/DashboardView.h"
#include "core/Preferences.h"

#include <QCloseEvent>
#include <QGuiApplication>
#include <QMenuBar>
#include <QScreen>

namespace {

const QString frameKey = QStringLiteral("VantrelDashboard");

} // namespace

DashboardWindow::DashboardWindow(DashboardView *view, QMenuBar *mainMenu, QWidget *parent)
    : QMainWindow(parent)
    , m_view(view)
{
    setObjectName(QStringLiteral("dashboardWindow"));
    setWindowTitle(QStringLiteral("Vantrel"));
    QPalette background = palette();
    background.setColor(QPalette::Window, QColor::fromRgbF(0.07f, 0.07f, 0.09f));
    setPalette(background);
    setAutoFillBackground(true);
    if (mainMenu)
        setMenuBar(mainMenu);
    setCentralWidget(view);
    const int menuHeight = mainMenu ? mainMenu->sizeHint().height() : 0;
    setMinimumSize(minimumContentSize + QSize(0, menuHeight));
    resize(contentSize + QSize(0, menuHeight));
}

DashboardWindow::~DashboardWindow() = default;

void DashboardWindow::placeFirstTime()
{
    if (m_placed)
        return;
    m_placed = true;
    const QByteArray saved = Preferences::open()->value(frameKey).toByteArray();
    if (!saved.isEmpty() && restoreGeometry(saved))
        return;
    if (QScreen *screen = QGuiApplication::primaryScreen()) {
        QRect frame = geometry();
        frame.moveCenter(screen->availableGeometry().center());
        move(frame.topLeft());
    }
}

void DashboardWindow::bringForward()
{
    placeFirstTime();
    if (isMinimized())
        showNormal();
    else
        show();
    raise();
    activateWindow();
}

void DashboardWindow::saveFrame() const
{
    if (m_placed)
        Preferences::open()->setValue(frameKey, saveGeometry());
}

void DashboardWindow::changeEvent(QEvent *event)
{
    QMainWindow::changeEvent(event);
    if (event->type() == QEvent::ActivationChange && isActiveWindow())
        emit becameActive();
}

void DashboardWindow::closeEvent(QCloseEvent *event)
{
    // Closing hides; the window and its content stay for the next time.
    saveFrame();
    event->accept();
}

void DashboardWindow::hideEvent(QHideEvent *event)
{
    saveFrame();
    QMainWindow::hideEvent(event);
}
