#pragma once

#include <QMainWindow>

class DashboardView;
class QMenuBar;

// The program's one window around the dashboard: made once at launch and kept; closing it only
// hides it (Vantrel goes on in the tray). Its place and size are kept in the settings store
// under "VantrelDashboard", so it opens where the user left it; the first time it is centred at
// 900 × 600.
class DashboardWindow : public QMainWindow
{
    Q_OBJECT

public:
    static constexpr QSize contentSize {900, 600};
    static constexpr QSize minimumContentSize {760, 480};

    // Takes `view` and, when given, the program's main menu.
    DashboardWindow(DashboardView *view, QMenuBar *mainMenu, QWidget *parent = nullptr);
    ~DashboardWindow() override;

    DashboardView *view() const { return m_view; }
    // Shows the window (where it was left) and brings it to the front with the focus.
    void bringForward();
    void saveFrame() const;

signals:
    // The window became the active one (it has the keyboard's focus).
    void becameActive();

protected:
    void changeEvent(QEvent *event) override;
    void closeEvent(QCloseEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    void placeFirstTime();

    DashboardView *m_view = nullptr;
    bool m_placed = false;
};
