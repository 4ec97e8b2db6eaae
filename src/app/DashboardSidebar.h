#pragma once

#include <QWidget>

class AppModel;
class QPushButton;

// The dashboard's left column: the app badge, the three tabs and, at the bottom, the account
// chip (who is signed in; clicking it opens Settings).
class DashboardSidebar : public QWidget
{
    Q_OBJECT

public:
    explicit DashboardSidebar(AppModel &model, QWidget *parent = nullptr);

    // The account chip's text: the signed-in name, or "Not signed in".
    void setAccountName(const QString &name);

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    void refreshTabs();

    AppModel &m_model;
    QList<QPushButton *> m_tabs;
    QPushButton *m_account = nullptr;
};
