#pragma once

#include "app/ClipFile.h"

#include <QList>
#include <QWidget>

class AppModel;
class QLabel;
class QPushButton;
class QVBoxLayout;
struct DashboardCallbacks;

// The Library tab: the count, Refresh, Folder, the folder link and Send all, then one row per
// clip (made a few at a time while the page is on screen), or a hint when there are none.
class LibraryPage : public QWidget
{
    Q_OBJECT

public:
    LibraryPage(AppModel &model, const DashboardCallbacks &callbacks, QWidget *parent = nullptr);

protected:
    void showEvent(QShowEvent *event) override;

private:
    void refreshClips();
    void addRows();
    void refreshSharing();
    void refreshHint();

    AppModel &m_model;
    const DashboardCallbacks &m_callbacks;
    QLabel *m_count = nullptr;
    QLabel *m_uploading = nullptr;
    QPushButton *m_copyFolderLink = nullptr;
    QLabel *m_hint = nullptr;
    QVBoxLayout *m_rows = nullptr;
    QList<ClipFile> m_unshown; // the clips whose rows are still to be made, in order
};
