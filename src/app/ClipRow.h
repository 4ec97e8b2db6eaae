#pragma once

#include "app/ClipFile.h"
#include "app/DashboardStyle.h"

class AppModel;
class QBoxLayout;
struct DashboardCallbacks;

// One clip of the library: its icon, name and date with size; clicking the body opens it.
// The buttons follow the model's sharing state: "Sharing…" while its upload runs, else "Share"
// or, once it has a link, "Copy link"; then "Copy file" and "Delete".
class ClipRow : public Card
{
    Q_OBJECT

public:
    ClipRow(const ClipFile &clip, AppModel &model, const DashboardCallbacks &callbacks,
            QWidget *parent = nullptr);

    const ClipFile &clip() const { return m_clip; }

protected:
    void resizeEvent(QResizeEvent *event) override;

private:
    void refreshShare();

    ClipFile m_clip;
    AppModel &m_model;
    const DashboardCallbacks &m_callbacks;
    QBoxLayout *m_layout = nullptr;
    QLabel *m_sharing = nullptr;
    QPushButton *m_share = nullptr;
    QPushButton *m_copyLink = nullptr;
};

// The date and size line of a clip, as its row shows it.
QString clipDetails(const ClipFile &clip);
