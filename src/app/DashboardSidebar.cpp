#include "app/DashboardSidebar.h"

#include "app/AppModel.h"
#include "app/DashboardStyle.h"
#include "core/Palette.h"

#include <QHBoxLayout>
#include <QPainter>
#include <QVBoxLayout>

using namespace DashboardStyle;

namespace {

struct TabEntry
{
    AppModel::Tab tab;
    const char *icon;
    const char *title;
    const char *objectName;
};

constexpr TabEntry tabEntries[] = {
    {AppModel::Tab::home, "home", "Home", "tabHome"},
    {AppModel::Tab::library, "library", "Library", "tabLibrary"},
    {AppModel::Tab::settings, "settings", "Settings", "tabSettings"},
};

void styleTab(QPushButton *tab, const char *iconName, bool selected)
{
    const QColor text = selected ? QColor(Qt::white) : Palette::white(0.5);
    tab->setIcon(QIcon(icon(QString::fromLatin1(iconName), text, 15)));
    tab->setStyleSheet(
        QStringLiteral("QPushButton { color: %1; background: %2; border: none; border-radius: 8px;"
                       " padding: 7px 10px; text-align: left; }"
                       "QPushButton:hover { background: rgba(255,255,255,%3); }")
            .arg(selected ? QStringLiteral("white") : QStringLiteral("rgba(255,255,255,128)"),
                 selected ? QStringLiteral("rgba(255,255,255,20)") : QStringLiteral("transparent"))
            .arg(selected ? 20 : 10));
}

} // namespace

DashboardSidebar::DashboardSidebar(AppModel &model, QWidget *parent)
    : QWidget(parent)
    , m_model(model)
{
    setObjectName(QStringLiteral("sidebar"));
    setFixedWidth(188);
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(12, 18, 12, 14);
    column->setSpacing(4);

    auto *badgeRow = new QHBoxLayout;
    badgeRow->setContentsMargins(4, 0, 0, 14);
    badgeRow->setSpacing(9);
    auto *badge = new QLabel(this);
    badge->setFixedSize(26, 26);
    badge->setAlignment(Qt::AlignCenter);
    badge->setPixmap(icon(QStringLiteral("paperclip"), Qt::black, 15));
    badge->setStyleSheet(QStringLiteral("background: rgb(245,196,66); border-radius: 7px;"));
    badgeRow->addWidget(badge);
    badgeRow->addWidget(label(QStringLiteral("Vantrel"), 15, QFont::DemiBold, Qt::white, this));
    badgeRow->addStretch(1);
    column->addLayout(badgeRow);

    for (const TabEntry &entry : tabEntries) {
        auto *tab = new QPushButton(QString::fromLatin1(entry.title), this);
        tab->setObjectName(QString::fromLatin1(entry.objectName));
        tab->setFont(DashboardStyle::font(13, QFont::Medium));
        tab->setIconSize(QSize(15, 15));
        tab->setCursor(Qt::PointingHandCursor);
        tab->setFocusPolicy(Qt::TabFocus);
        const AppModel::Tab target = entry.tab;
        connect(tab, &QPushButton::clicked, this, [this, target] { m_model.setTab(target); });
        column->addWidget(tab);
        m_tabs << tab;
    }
    column->addStretch(1);

    m_account = new QPushButton(this);
    m_account->setObjectName(QStringLiteral("accountChip"));
    m_account->setFont(DashboardStyle::font(12, QFont::Medium));
    m_account->setCursor(Qt::PointingHandCursor);
    m_account->setFocusPolicy(Qt::TabFocus);
    m_account->setStyleSheet(QStringLiteral(
        "QPushButton { color: rgba(255,255,255,166); background: rgba(255,255,255,13);"
        " border: none; border-radius: 8px; padding: 8px 10px; text-align: left; }"
        "QPushButton:hover { background: rgba(255,255,255,26); }"));
    connect(m_account, &QPushButton::clicked, this,
            [this] { m_model.setTab(AppModel::Tab::settings); });
    column->addWidget(m_account);
    setAccountName(QString());

    connect(&m_model, &AppModel::tabChanged, this, &DashboardSidebar::refreshTabs);
    refreshTabs();
}

void DashboardSidebar::setAccountName(const QString &name)
{
    const QString text = name.isEmpty() ? QStringLiteral("Not signed in") : name;
    m_account->setText(fontMetrics().elidedText(text, Qt::ElideRight, 150));
    m_account->setToolTip(text);
}

void DashboardSidebar::refreshTabs()
{
    for (int i = 0; i < m_tabs.size(); ++i)
        styleTab(m_tabs[i], tabEntries[i].icon, tabEntries[i].tab == m_model.tab());
}

void DashboardSidebar::paintEvent(QPaintEvent *)
{
    QPainter(this).fillRect(rect(), Palette::vtPanel());
}
