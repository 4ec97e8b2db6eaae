#include "app/LibraryPage.h"

#include "app/AppModel.h"
#include "app/ClipRow.h"
#include "app/DashboardCallbacks.h"
#include "app/DashboardStyle.h"
#include "app/StatusLine.h"
#include "core/Palette.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QTimer>
#include <QVBoxLayout>

#include <algorithm>

using namespace DashboardStyle;

LibraryPage::LibraryPage(AppModel &model, const DashboardCallbacks &callbacks, QWidget *parent)
    : QWidget(parent)
    , m_model(model)
    , m_callbacks(callbacks)
{
    setObjectName(QStringLiteral("libraryPage"));
    auto *page = new QVBoxLayout(this);
    page->setContentsMargins(0, 0, 0, 0);
    page->setSpacing(14);

    auto *heading = new QVBoxLayout;
    heading->setSpacing(4);
    heading->addWidget(label(QStringLiteral("Library"), 26, QFont::DemiBold, Qt::white, this));
    m_count = label(QString(), 13, QFont::Normal, Palette::white(0.5), this);
    m_count->setObjectName(QStringLiteral("clipCount"));
    heading->addWidget(m_count);
    page->addLayout(heading);

    auto *buttons = new QHBoxLayout;
    buttons->setSpacing(8);
    auto *refresh = button(QStringLiteral("Refresh"), QStringLiteral("refresh"), Look::pill);
    connect(refresh, &QPushButton::clicked, this, [this] { call(m_callbacks.onRefresh); });
    auto *folder = button(QStringLiteral("Folder"), QStringLiteral("folder"), Look::pill);
    connect(folder, &QPushButton::clicked, this, [this] { call(m_callbacks.onReveal); });
    m_uploading = label(QStringLiteral("Uploading…"), 13, QFont::Normal, Palette::white(0.5), this);
    m_uploading->setObjectName(QStringLiteral("uploadingAll"));
    m_uploading->setContentsMargins(6, 0, 6, 0);
    m_copyFolderLink =
        button(QStringLiteral("Copy folder link"), QStringLiteral("copyFolderLink"), Look::pill);
    connect(m_copyFolderLink, &QPushButton::clicked, this, [this] {
        QClipboard *clipboard = QGuiApplication::clipboard();
        clipboard->clear();
        clipboard->setText(m_model.packLink());
        m_model.setStatus(QStringLiteral("Folder link copied."));
    });
    auto *sendAll = button(QStringLiteral("Send all"), QStringLiteral("sendAll"), Look::accent);
    connect(sendAll, &QPushButton::clicked, this, [this] { call(m_callbacks.onShareAll); });
    for (QWidget *widget :
         {static_cast<QWidget *>(refresh), static_cast<QWidget *>(folder),
          static_cast<QWidget *>(m_uploading), static_cast<QWidget *>(m_copyFolderLink),
          static_cast<QWidget *>(sendAll)})
        buttons->addWidget(widget);
    buttons->addStretch(1);
    page->addLayout(buttons);
    page->addWidget(new StatusLine(m_model, QStringLiteral("libraryStatus"), this));

    m_hint = label(QString(), 13, QFont::Normal, Palette::white(0.45), this);
    m_hint->setObjectName(QStringLiteral("libraryHint"));
    m_hint->setWordWrap(true);
    page->addWidget(m_hint);

    m_rows = new QVBoxLayout;
    m_rows->setSpacing(8);
    page->addLayout(m_rows);
    page->addStretch(1);

    connect(&m_model, &AppModel::clipsChanged, this, &LibraryPage::refreshClips);
    connect(&m_model, &AppModel::sharingAllChanged, this, &LibraryPage::refreshSharing);
    connect(&m_model, &AppModel::packLinkChanged, this, &LibraryPage::refreshSharing);
    connect(&m_model, &AppModel::hotkeyNameChanged, this, &LibraryPage::refreshHint);
    refreshClips();
    refreshSharing();
}

void LibraryPage::refreshClips()
{
    const QList<ClipFile> clips = m_model.clips();
    QString count = QStringLiteral("No clips yet");
    if (clips.size() == 1)
        count = QStringLiteral("1 clip · full quality");
    else if (!clips.isEmpty())
        count = QString::number(clips.size()) + QStringLiteral(" clips · full quality");
    m_count->setText(count);
    while (QLayoutItem *item = m_rows->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    m_unshown = clips;
    if (isVisible())
        addRows();
    refreshHint();
}

void LibraryPage::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    addRows();
}

void LibraryPage::addRows()
{
    // Rows are made only while the page is on screen, and a few per turn of the event loop,
    // so the window opens and stays responsive whatever the library holds; the posters are asked
    // for by the rows that are drawn.
    constexpr qsizetype rowsPerTurn = 8;
    if (m_unshown.isEmpty() || !isVisible())
        return;
    const qsizetype count = std::min(rowsPerTurn, m_unshown.size());
    for (qsizetype i = 0; i < count; ++i)
        m_rows->addWidget(new ClipRow(m_unshown.at(i), m_model, m_callbacks, this));
    m_unshown.remove(0, count);
    if (!m_unshown.isEmpty())
        QTimer::singleShot(0, this, &LibraryPage::addRows);
}

void LibraryPage::refreshSharing()
{
    const bool sharingAll = m_model.sharingAll();
    m_uploading->setVisible(sharingAll);
    m_copyFolderLink->setVisible(!sharingAll && !m_model.packLink().isEmpty());
}

void LibraryPage::refreshHint()
{
    m_hint->setText(QStringLiteral("Arm recording, then press ") + m_model.hotkeyName() +
                    QStringLiteral(". Share uploads a link you can paste anywhere."));
    m_hint->setVisible(m_model.clips().isEmpty());
}
