#include "app/LengthKeysCard.h"

#include "app/AppModel.h"
#include "app/DashboardCallbacks.h"
#include "core/LengthKeys.h"
#include "core/Palette.h"

#include <QGridLayout>
#include <QPushButton>
#include <QVBoxLayout>

using namespace DashboardStyle;

LengthKeysCard::LengthKeysCard(AppModel &model, const DashboardCallbacks &callbacks,
                               QWidget *parent)
    : Card(parent)
    , m_model(model)
    , m_callbacks(callbacks)
{
    setObjectName(QStringLiteral("lengthKeys"));
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(12, 10, 12, 12);
    column->setSpacing(8);
    auto *grid = new QGridLayout;
    grid->setHorizontalSpacing(10);
    grid->setVerticalSpacing(8);
    int line = 0;
    for (int seconds : LengthKeys::lengths) {
        const QString length = QString::number(seconds);
        Row row;
        auto *title =
            label(QStringLiteral("Last %1 s").arg(seconds), 13, QFont::Normal, Qt::white, this);
        row.chip = keyChip(13, this);
        row.chip->setObjectName(QStringLiteral("lengthKeyChip") + length);
        row.change = button(QString(), QStringLiteral("lengthKey") + length, Look::pill, Qt::white,
                            12, this);
        connect(row.change, &QPushButton::clicked, this,
                [this, seconds] { call(m_callbacks.onChangeLengthKey, seconds); });
        row.clear = button(QStringLiteral("Clear"), QStringLiteral("clearLengthKey") + length,
                           Look::link, Palette::white(0.55), 12, this);
        connect(row.clear, &QPushButton::clicked, this,
                [this, seconds] { call(m_callbacks.onClearLengthKey, seconds); });
        // In a narrow window the buttons go under the key rather than past the card's edge.
        auto *controls = new WrappingRow(this);
        controls->addWidget(row.chip);
        controls->addWidget(row.change);
        controls->addWidget(row.clear);
        grid->addWidget(title, line, 0, Qt::AlignTop);
        grid->addWidget(controls, line, 1);
        m_rows.insert(seconds, row);
        ++line;
    }
    grid->setColumnStretch(1, 1);
    column->addLayout(grid);
    auto *note = label(QStringLiteral("Each saves its length whatever the clip length above. The "
                                      "replay keeps the longest length that has a key."),
                       12, QFont::Normal, Palette::white(0.5), this);
    note->setWordWrap(true);
    column->addWidget(note);

    for (auto signal : {&AppModel::lengthKeyNamesChanged, &AppModel::capturingLengthChanged})
        connect(&m_model, signal, this, &LengthKeysCard::refresh);
    refresh();
}

void LengthKeysCard::refresh()
{
    const QMap<int, QString> names = m_model.lengthKeyNames();
    const int capturing = m_model.capturingLength();
    for (auto it = m_rows.cbegin(); it != m_rows.cend(); ++it) {
        const int seconds = it.key();
        const Row &row = it.value();
        const bool bound = names.contains(seconds);
        if (capturing == seconds) {
            row.chip->setText(QStringLiteral("Press a key…"));
            row.change->setText(QStringLiteral("Cancel"));
        } else {
            row.chip->setText(bound ? names.value(seconds) : QStringLiteral("None"));
            row.change->setText(bound ? QStringLiteral("Change") : QStringLiteral("Set"));
        }
        setTextColor(row.chip,
                     bound || capturing == seconds ? QColor(Qt::white) : Palette::white(0.4));
        row.clear->setVisible(bound && capturing != seconds);
    }
}
