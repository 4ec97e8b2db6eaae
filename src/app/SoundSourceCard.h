#pragma once

#include "app/DashboardStyle.h"

#include <QFutureWatcher>
#include <QList>
#include <QStringList>

class QLabel;
class QPushButton;
class WrappingRow;
struct DashboardCallbacks;

// Settings' "Sound": what the system track records, all of the system's sound or one application
// that plays, chosen by its name among those playing now (the chosen one stays offered while it
// is silent). The list is asked for off the main thread each time the card appears, and on
// Refresh; the choice is stored at once and used from the next arming.
class SoundSourceCard : public Card
{
    Q_OBJECT

public:
    SoundSourceCard(const DashboardCallbacks &callbacks, QWidget *parent = nullptr);

    // "Recording all system sound." or which application is recorded.
    static QString recordedText(const QString &application);

protected:
    void showEvent(QShowEvent *event) override;

private:
    void listApplications();
    void showChoices();
    void choose(const QString &application);

    const DashboardCallbacks &m_callbacks;
    QFutureWatcher<QStringList> m_listing;
    QStringList m_playing;
    WrappingRow *m_choices = nullptr;
    QList<QPushButton *> m_buttons;
    QLabel *m_recorded = nullptr;
};
