#pragma once

#include "app/ClipFile.h"
#include "app/DashboardStyle.h"
#include "media/ClipPosters.h"

class AppModel;
class QHBoxLayout;
struct DashboardCallbacks;

// One clip of the library: its poster with its duration, name and date with size; clicking the
// body opens it. The poster is asked for the first time the row is drawn (a long library draws
// only the rows in view) and fills in when it comes; a clip without one (damaged, or not decoded
// yet) shows a placeholder. The buttons follow the model's sharing state: "Sharing…" while its
// upload runs, else "Share" or, once it has a link, "Copy link"; then "Trim", "Copy file" and
// "Delete".
class ClipRow : public Card
{
    Q_OBJECT

public:
    ClipRow(const ClipFile &clip, AppModel &model, const DashboardCallbacks &callbacks,
            QWidget *parent = nullptr);

    const ClipFile &clip() const { return m_clip; }

    // Poster size in the row.
    static constexpr QSize posterSize {96, 54};

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    void refreshShare();
    void askForPoster();
    void showPoster(const ClipPosters::Poster &poster);

    ClipFile m_clip;
    AppModel &m_model;
    const DashboardCallbacks &m_callbacks;
    QHBoxLayout *m_layout = nullptr;
    QWidget *m_buttons = nullptr;
    QLabel *m_sharing = nullptr;
    QPushButton *m_share = nullptr;
    QPushButton *m_copyLink = nullptr;
    QLabel *m_poster = nullptr;
    QLabel *m_duration = nullptr;
    bool m_askedForPoster = false;
};

// "0:42", "1:05:07": a clip's duration as its row shows it.
QString clipDuration(double seconds);

// The date and size line of a clip, as its row shows it.
QString clipDetails(const ClipFile &clip);
