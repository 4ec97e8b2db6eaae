#pragma once

#include <QPushButton>
#include <QWidget>

class QLabel;
class QPushButton;
class UpdateStore;

// The update badge and the update sheet over the update store. The badge, a green button
// labelled "Update available", sits in the window's top-right corner while a newer release is
// known and opens the sheet; the sheet covers the window while the store's sheet flag is set,
// with the version, the notes, the install's status line, "Later" and the install button, or, for
// a copy that must not replace itself, why, in the install button's place.
class UpdateBadge : public QPushButton
{
    Q_OBJECT

public:
    explicit UpdateBadge(UpdateStore &updates, QWidget *parent = nullptr);

private:
    UpdateStore &m_updates;
};

class UpdateSheet : public QWidget
{
    Q_OBJECT

public:
    explicit UpdateSheet(UpdateStore &updates, QWidget *parent = nullptr);

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    void redraw();

    UpdateStore &m_updates;
    QLabel *m_version = nullptr;
    QLabel *m_notes = nullptr;
    QLabel *m_status = nullptr;
    QPushButton *m_install = nullptr;
    QLabel *m_cannotUpdate = nullptr;
};
