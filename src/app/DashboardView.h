#pragma once

#include "app/DashboardCallbacks.h"

#include <QWidget>

class AdsStore;
class AppModel;
class DashboardSidebar;
class HomePage;
class LibraryPage;
class SettingsPage;
class SponsoredRail;
class TrimPage;
class UpdateBadge;
class UpdateSheet;
class QStackedWidget;

// The content of the program's one window: the sidebar, the page of the model's tab (Home,
// Library or Settings, or the trim view over them while the model names a clip to trim) and, after
// a divider, the sponsored rail. It draws only from the stores it observes and acts only through
// the shell's callbacks and a few direct writes (the tab, the clip length, the toggles, the status
// after copying a link). The one thing it owns is the rail's ad store, which lives as long as the
// view.
class DashboardView : public QWidget
{
    Q_OBJECT

public:
    DashboardView(AppModel &model, DashboardCallbacks callbacks, QWidget *parent = nullptr);
    ~DashboardView() override;

    AdsStore &ads() { return *m_ads; }
    SponsoredRail *rail() const { return m_rail; }

protected:
    // Each time the view appears: the clip list, the sponsor cards and the update check are
    // refreshed, in that order.
    void showEvent(QShowEvent *event) override;
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    void showTab();
    void showAccountName();

    AppModel &m_model;
    const DashboardCallbacks m_callbacks;
    AdsStore *m_ads = nullptr;
    DashboardSidebar *m_sidebar = nullptr;
    QStackedWidget *m_pages = nullptr;
    HomePage *m_home = nullptr;
    LibraryPage *m_library = nullptr;
    SettingsPage *m_settings = nullptr;
    TrimPage *m_trim = nullptr;
    SponsoredRail *m_rail = nullptr;
    UpdateBadge *m_updateBadge = nullptr;
    UpdateSheet *m_updateSheet = nullptr;
};
