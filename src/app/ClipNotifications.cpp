#include "app/ClipNotifications.h"

#include "app/AppDelegate.h"
#include "app/DashboardWindow.h"
#include "app/DesktopNotifications.h"
#include "input/PermissionNotifier.h"

#include <QFileInfo>
#include <QMessageBox>

ClipNotifications::ClipNotifications(AppDelegate &delegate)
    : QObject(&delegate)
    , m_delegate(delegate)
    , m_desktop(new DesktopNotifications(this))
{
    AppModel &model = m_delegate.model();
    m_knownLinks = model.shares();
    connect(&m_delegate, &AppDelegate::clipSaved, this, &ClipNotifications::clipSaved);
    connect(&m_delegate, &AppDelegate::saveFailed, this, [this](const QString &message) {
        m_desktop->notify(QStringLiteral("Clip not saved"), message, {}, true);
    });
    connect(&model, &AppModel::sharesChanged, this, &ClipNotifications::linksChanged);
    connect(&model, &AppModel::packLinkChanged, this, [this] {
        const QString link = m_delegate.model().packLink();
        if (!link.isEmpty())
            m_desktop->notify(QStringLiteral("Folder link copied"),
                              link + QStringLiteral("\nPaste it anywhere."));
    });
    connect(&PermissionNotifier::instance(), &PermissionNotifier::noticePosted, this,
            &ClipNotifications::noticePosted);
}

void ClipNotifications::clipSaved(const QString &path)
{
    QPointer<AppDelegate> delegate(&m_delegate);
    const QUrl url = QUrl::fromLocalFile(path);
    m_desktop->notify(QStringLiteral("Clip saved"), QFileInfo(path).fileName(),
                      {{QStringLiteral("open"), QStringLiteral("Open"),
                        [delegate, url] {
                            if (delegate && delegate->library())
                                delegate->library()->openClip(url);
                        }},
                       {QStringLiteral("folder"), QStringLiteral("Show in folder"),
                        [path] { ClipLibrary::revealFile(path); }}});
}

void ClipNotifications::linksChanged()
{
    const AppModel &model = m_delegate.model();
    const QMap<QUrl, QString> links = model.shares();
    // A share-all run records each clip's link but puts only the folder link on the clipboard.
    if (!model.sharingAll()) {
        for (auto it = links.cbegin(); it != links.cend(); ++it) {
            if (m_knownLinks.value(it.key()) != it.value())
                m_desktop->notify(QStringLiteral("Link copied"),
                                  it.value() + QStringLiteral("\nPaste it anywhere."));
        }
    }
    m_knownLinks = links;
}

void ClipNotifications::noticePosted(const PermissionNotice &notice)
{
    // Help the user asked for from the window is shown there; the rest goes to the desktop.
    DashboardWindow *window = m_delegate.window();
    if (!notice.isFirstPrompt && window && window->isVisible()) {
        auto *box = new QMessageBox(QMessageBox::Information, notice.title, notice.text,
                                    QMessageBox::Ok, window);
        box->setObjectName(QStringLiteral("permissionHelp"));
        box->setAttribute(Qt::WA_DeleteOnClose);
        box->open();
        return;
    }
    m_desktop->notify(notice.title, notice.text);
}
