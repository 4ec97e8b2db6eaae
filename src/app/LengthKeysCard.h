#pragma once

#include "app/DashboardStyle.h"

#include <QMap>

class AppModel;
class QLabel;
class QPushButton;
struct DashboardCallbacks;

// Settings' keys for each length: a row per length (15, 30, 60 and 120 s) with its key, or none,
// and Set / Change / Cancel and Clear, captured in the window like the clip key.
class LengthKeysCard : public Card
{
    Q_OBJECT

public:
    LengthKeysCard(AppModel &model, const DashboardCallbacks &callbacks, QWidget *parent = nullptr);

private:
    struct Row
    {
        QLabel *chip = nullptr;
        QPushButton *change = nullptr;
        QPushButton *clear = nullptr;
    };

    void refresh();

    AppModel &m_model;
    const DashboardCallbacks &m_callbacks;
    QMap<int, Row> m_rows;
};
