#include "app/ClipNotifications.h"

#include "app/AppModel.h"
#include "app/ClipLibrary.h"
#include "app/ClipSaver.h"
#include "app/DesktopNotifications.h"
#include "input/PermissionNotifier.h"

#include <QFileInfo>
#include <QMessageBox>

ClipNotifications::ClipNotifications(ClipSaver &saver, AppModel &model, ClipLibrary &library,
                                     QObject *parent)
    : QObject(parent)
    , m_model(model)
    , m_library(library)
    , m_desktop(new DesktopNotifications(this))
{
    m_knownLinks = model.shares();
    connect(&saver, &ClipSaver::clipSaved, this, &ClipNotifications::clipSaved);
    connect(&saver, &ClipSaver::saveFailed, this, [this](const QString &message) {
        m_desktop->notify(QStringLiteral("Clip not saved"), message, {}, true);
    });
    connect(&model, &AppModel::sharesChanged, this, &ClipNotifications::linksChanged);
    connect(&model, &AppModel::packLinkChanged, this, [this] {
        const QString link = m_model.packLink();
        if (!link.isEmpty())
            m_desktop->notify(QStringLiteral("Folder link copied"),
                              link + QStringLiteral("\nPaste it anywhere."));
    });
    connect(&PermissionNotifier::instance(), &PermissionNotifier::noticePosted, this,
            &ClipNotifications::noticePosted);
}

void ClipNotifications::clipSaved(const QString &path)
{
    QPointer<ClipLibrary> library(&m_library);
    const QUrl url = QUrl::fromLocalFile(path);
    m_desktop->notify(QStringLiteral("Clip saved"), QFileInfo(path).fileName(),
                      {{QStringLiteral("open"), QStringLiteral("Open"),
                        [library, url] {
                            if (library)
                                library->openClip(url);
                        }},
                       {QStringLiteral("folder"), QStringLiteral("Show in folder"),
                        [path] { ClipLibrary::revealFile(path); }}});
}

void ClipNotifications::linksChanged()
{
    const QMap<QUrl, QString> links = m_model.shares();
    // A share-all run records each clip's link but puts only the folder link on the clipboard.
    if (!m_model.sharingAll()) {
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
    if (!notice.isFirstPrompt && m_window && m_window->isVisible()) {
        auto *box = new QMessageBox(QMessageBox::Information, notice.title, notice.text,
                                    QMessageBox::Ok, m_window);
        box->setObjectName(QStringLiteral("permissionHelp"));
        box->setAttribute(Qt::WA_DeleteOnClose);
        box->open();
        return;
    }
    m_desktop->notify(notice.title, notice.text);
}
