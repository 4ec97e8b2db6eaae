#include "app/DashboardView.h"

#include "app/AccountPanel.h"
#include "app/AppModel.h"
#include "app/DashboardSidebar.h"
#include "app/HomePage.h"
#include "app/LibraryPage.h"
#include "app/SettingsPage.h"
#include "app/TrimPage.h"
#include "app/UpdatePanel.h"
#include "cloud/AccountStore.h"
#include "core/Palette.h"
#include "promo/AdsStore.h"
#include "promo/SponsoredRail.h"
#include "update/UpdateStore.h"

#include <QHBoxLayout>
#include <QPainter>
#include <QScrollArea>
#include <QScrollBar>
#include <QShowEvent>
#include <QStackedWidget>

namespace {

// A page in a scroll area of its own, on the content background, with the content's margins.
QScrollArea *scrolling(QWidget *page, QWidget *parent)
{
    auto *holder = new QWidget;
    auto *margins = new QVBoxLayout(holder);
    margins->setContentsMargins(28, 24, 28, 24);
    margins->addWidget(page);
    auto *area = new QScrollArea(parent);
    area->setObjectName(page->objectName() + QStringLiteral("Scroll"));
    area->setWidget(holder);
    area->setWidgetResizable(true);
    area->setFrameShape(QFrame::NoFrame);
    area->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    area->setStyleSheet(QStringLiteral(
        "QScrollArea, QScrollArea > QWidget > QWidget { background: transparent; }"
        "QScrollBar:vertical { background: transparent; width: 8px; margin: 2px; }"
        "QScrollBar::handle:vertical { background: rgba(255,255,255,40); border-radius: 3px;"
        " min-height: 24px; }"
        "QScrollBar::add-line, QScrollBar::sub-line { height: 0; }"
        "QScrollBar::add-page, QScrollBar::sub-page { background: transparent; }"));
    return area;
}

} // namespace

DashboardView::DashboardView(AppModel &model, DashboardCallbacks callbacks, QWidget *parent)
    : QWidget(parent)
    , m_model(model)
    , m_callbacks(std::move(callbacks))
    , m_ads(new AdsStore(this))
{
    setObjectName(QStringLiteral("dashboard"));
    // Dark whatever the desktop's theme: text and controls are drawn for this background.
    QPalette dark = palette();
    dark.setColor(QPalette::Window, Palette::vtBg());
    dark.setColor(QPalette::WindowText, Qt::white);
    dark.setColor(QPalette::Base, Palette::vtPanel());
    dark.setColor(QPalette::Text, Qt::white);
    dark.setColor(QPalette::ToolTipBase, Palette::vtPanel());
    dark.setColor(QPalette::ToolTipText, Qt::white);
    setPalette(dark);

    auto *row = new QHBoxLayout(this);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(0);

    m_sidebar = new DashboardSidebar(m_model, this);
    row->addWidget(m_sidebar);

    m_pages = new QStackedWidget(this);
    m_home = new HomePage(m_model, m_callbacks);
    m_library = new LibraryPage(m_model, m_callbacks);
    m_settings = new SettingsPage(m_model, m_callbacks);
    m_pages->addWidget(scrolling(m_home, m_pages));
    m_pages->addWidget(scrolling(m_library, m_pages));
    m_pages->addWidget(scrolling(m_settings, m_pages));
    m_trim = new TrimPage(m_model, m_callbacks);
    m_pages->addWidget(m_trim);
    row->addWidget(m_pages, 1);

    auto *divider = new QWidget(this);
    divider->setFixedWidth(1);
    divider->setAutoFillBackground(true);
    QPalette line = divider->palette();
    line.setColor(QPalette::Window, Palette::white(0.08));
    divider->setPalette(line);
    row->addWidget(divider);

    // The right column: the update badge at the window's top-right corner while there is one,
    // over the sponsored rail.
    auto *right = new QWidget(this);
    right->setFixedWidth(204);
    auto *column = new QVBoxLayout(right);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    m_updateBadge = new UpdateBadge(UpdateStore::shared(), right);
    auto *badgeRow = new QHBoxLayout;
    badgeRow->setContentsMargins(0, 12, 12, 0);
    badgeRow->addStretch(1);
    badgeRow->addWidget(m_updateBadge);
    column->addLayout(badgeRow);
    m_rail = new SponsoredRail(*m_ads, right);
    column->addWidget(m_rail, 1);
    row->addWidget(right);

    m_settings->setAccountPanel(new AccountPanel(AccountStore::shared()));
    AccountStore &account = AccountStore::shared();
    connect(&account, &AccountStore::tokenChanged, this, &DashboardView::showAccountName);
    connect(&account, &AccountStore::profileChanged, this, &DashboardView::showAccountName);
    showAccountName();

    // Over everything else, placed by resizeEvent.
    m_updateSheet = new UpdateSheet(UpdateStore::shared(), this);

    connect(&m_model, &AppModel::tabChanged, this, [this] {
        // Choosing a tab leaves the trim view.
        if (!m_model.trimClip().isEmpty())
            m_model.setTrimClip({});
        showTab();
    });
    connect(&m_model, &AppModel::trimClipChanged, this, &DashboardView::showTab);
    showTab();
}

void DashboardView::showAccountName()
{
    const AccountStore &account = AccountStore::shared();
    const auto profile = account.profile();
    m_sidebar->setAccountName(account.isSignedIn() && profile ? profile->name : QString());
}

void DashboardView::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    m_updateSheet->setGeometry(rect());
}

DashboardView::~DashboardView() = default;

void DashboardView::showTab()
{
    if (!m_model.trimClip().isEmpty())
        m_pages->setCurrentWidget(m_trim);
    else
        m_pages->setCurrentIndex(int(m_model.tab()));
}

void DashboardView::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    call(m_callbacks.onRefresh);
    m_ads->refresh();
    UpdateStore::shared().refresh();
}

void DashboardView::paintEvent(QPaintEvent *)
{
    QPainter(this).fillRect(rect(), Palette::vtBg());
}
