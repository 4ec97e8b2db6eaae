#include "app/SoundSourceCard.h"

#include "app/DashboardCallbacks.h"
#include "core/ClipSettings.h"
#include "core/Palette.h"

#include <QHBoxLayout>
#include <QPushButton>
#include <QVBoxLayout>

using namespace DashboardStyle;

QString SoundSourceCard::recordedText(const QString &application)
{
    if (application.isEmpty())
        return QStringLiteral("Recording all system sound.");
    return QStringLiteral("Recording only %1. While it plays nothing, the sound track is silent. "
                          "Used from the next time recording starts.")
        .arg(application);
}

SoundSourceCard::SoundSourceCard(const DashboardCallbacks &callbacks, QWidget *parent)
    : Card(parent)
    , m_callbacks(callbacks)
{
    setObjectName(QStringLiteral("soundSource"));
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(12, 10, 12, 10);
    column->setSpacing(8);
    auto *title = new QHBoxLayout;
    title->addWidget(label(QStringLiteral("Sound"), 13, QFont::Normal, Qt::white, this), 1);
    auto *refresh = button(QStringLiteral("Refresh"), QStringLiteral("refreshSoundSources"),
                           Look::link, Palette::vtGold(), 12, this);
    connect(refresh, &QPushButton::clicked, this, &SoundSourceCard::listApplications);
    title->addWidget(refresh);
    column->addLayout(title);
    m_choices = new WrappingRow(this);
    column->addWidget(m_choices);
    m_recorded = label(QString(), 12, QFont::Normal, Palette::white(0.5), this);
    m_recorded->setObjectName(QStringLiteral("soundRecorded"));
    m_recorded->setWordWrap(true);
    column->addWidget(m_recorded);

    connect(&m_listing, &QFutureWatcherBase::finished, this, [this] {
        m_playing = m_listing.future().resultCount() > 0 ? m_listing.result() : QStringList();
        showChoices();
    });
    showChoices();
}

void SoundSourceCard::showEvent(QShowEvent *event)
{
    Card::showEvent(event);
    listApplications();
}

void SoundSourceCard::listApplications()
{
    // Asking the sound server can take up to a second when it is slow to answer.
    if (m_callbacks.playingApplications && !m_listing.isRunning())
        m_listing.setFuture(m_callbacks.playingApplications());
}

void SoundSourceCard::showChoices()
{
    qDeleteAll(m_buttons);
    m_buttons.clear();
    const QString chosen = ClipSettings::soundSource();
    QStringList offered = m_playing;
    if (!chosen.isEmpty() && !offered.contains(chosen))
        offered.append(chosen);
    offered.prepend(QString());
    for (const QString &application : offered) {
        const bool selected = application == chosen;
        auto *choice =
            button(application.isEmpty() ? QStringLiteral("All system sound") : application,
                   application.isEmpty() ? QStringLiteral("soundAll")
                                         : QStringLiteral("soundApp:") + application,
                   selected ? Look::accent : Look::pill,
                   selected ? QColor(Qt::black) : Palette::white(0.8), 12, m_choices);
        connect(choice, &QPushButton::clicked, this, [this, application] { choose(application); });
        m_choices->addWidget(choice);
        m_buttons.append(choice);
    }
    m_recorded->setText(recordedText(chosen));
}

void SoundSourceCard::choose(const QString &application)
{
    ClipSettings::setSoundSource(application);
    // Deleting the buttons from inside one's click handler is not safe.
    QMetaObject::invokeMethod(this, &SoundSourceCard::showChoices, Qt::QueuedConnection);
}
