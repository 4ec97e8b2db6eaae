#include "app/SettingsPage.h"

#include "app/AppModel.h"
#include "app/AutostartEntry.h"
#include "app/DashboardCallbacks.h"
#include "app/DashboardStyle.h"
#include "app/LengthKeysCard.h"
#include "app/SoundSourceCard.h"
#include "app/StatusLine.h"
#include "app/StatusTexts.h"
#include "core/ClipSettings.h"
#include "core/Palette.h"
#include "input/HotkeyManager.h"

#include <QHBoxLayout>
#include <QPushButton>
#include <QVBoxLayout>

#include <cmath>

using namespace DashboardStyle;

namespace {

// A setting's row: its title on the left and its switch on the right, on a card, with `note`
// under them (shown when there is something to say).
Card *switchRow(const QString &titleText, ToggleSwitch *toggle, QLabel *note, QWidget *parent)
{
    auto *card = new Card(parent);
    auto *column = new QVBoxLayout(card);
    column->setContentsMargins(12, 10, 12, 10);
    column->setSpacing(4);
    auto *row = new QHBoxLayout;
    auto *title = label(titleText, 13, QFont::Normal, Qt::white, card);
    title->setWordWrap(true);
    row->addWidget(title, 1);
    row->addWidget(toggle);
    column->addLayout(row);
    note->setParent(card);
    column->addWidget(note);
    return card;
}

} // namespace

QString SettingsPage::memoryText(std::optional<double> bytesPerSecond, double clipLengthSeconds)
{
    const int seconds = int(clipLengthSeconds);
    if (!bytesPerSecond || *bytesPerSecond <= 0)
        return QStringLiteral("Memory for %1 s of replay is measured once recording has run a few "
                              "seconds.")
            .arg(seconds);
    const double megabytes = *bytesPerSecond * seconds / 1e6;
    QString amount;
    if (megabytes >= 1000)
        amount = QString::number(megabytes / 1000, 'f', 1) + QStringLiteral(" GB");
    else if (megabytes >= 100)
        amount = QString::number(std::lround(megabytes / 10) * 10) + QStringLiteral(" MB");
    else
        amount = QString::number(std::max(1L, std::lround(megabytes))) + QStringLiteral(" MB");
    return QStringLiteral("About %1 for %2 s").arg(amount).arg(seconds);
}

SettingsPage::SettingsPage(AppModel &model, const DashboardCallbacks &callbacks, QWidget *parent)
    : QWidget(parent)
    , m_model(model)
    , m_callbacks(callbacks)
{
    setObjectName(QStringLiteral("settingsPage"));
    auto *page = new QVBoxLayout(this);
    page->setContentsMargins(0, 0, 0, 0);
    page->setSpacing(14);
    page->addWidget(label(QStringLiteral("Settings"), 26, QFont::DemiBold, Qt::white, this));
    page->addWidget(new StatusLine(m_model, QStringLiteral("settingsStatus"), this));

    page->addWidget(caption(QStringLiteral("CLIP KEY"), this));
    auto *keyCard = new Card(this);
    auto *key = new QVBoxLayout(keyCard);
    key->setContentsMargins(12, 12, 12, 12);
    key->setSpacing(8);
    auto *keyRow = new QHBoxLayout;
    keyRow->setSpacing(10);
    m_keyChip = keyChip(18, keyCard);
    m_keyChip->setObjectName(QStringLiteral("keyChip"));
    keyRow->addWidget(m_keyChip);
    m_change = button(QString(), QStringLiteral("changeKey"), Look::pill, Qt::white, 13, keyCard);
    connect(m_change, &QPushButton::clicked, this, [this] { call(m_callbacks.onChangeHotkey); });
    keyRow->addWidget(m_change);
    keyRow->addStretch(1);
    key->addLayout(keyRow);
    m_keyNote = label(QString(), 12, QFont::Normal, Palette::white(0.5), keyCard);
    m_keyNote->setObjectName(QStringLiteral("keyNote"));
    m_keyNote->setWordWrap(true);
    key->addWidget(m_keyNote);
    page->addWidget(keyCard);

    page->addSpacing(4);
    page->addWidget(caption(QStringLiteral("KEYS FOR EACH LENGTH"), this));
    page->addWidget(new LengthKeysCard(m_model, m_callbacks, this));

    page->addSpacing(4);
    page->addWidget(caption(QStringLiteral("RECORDING"), this));
    m_login = new ToggleSwitch(this);
    m_login->setObjectName(QStringLiteral("armOnLaunch"));
    connect(m_login, &ToggleSwitch::toggled, this, [this](bool on) {
        if (on != m_model.armOnLaunch())
            m_model.setArmOnLaunch(on);
    });
    m_loginNote =
        label(QStringLiteral("This copy of Vantrel is not installed, so nothing can start "
                             "it when you log in. It still arms when you start it."),
              12, QFont::Normal, Palette::white(0.5), this);
    m_loginNote->setObjectName(QStringLiteral("loginNote"));
    m_loginNote->setWordWrap(true);
    page->addWidget(
        switchRow(QStringLiteral("Start recording when I log in"), m_login, m_loginNote, this));
    m_mic = new ToggleSwitch(this);
    m_mic->setObjectName(QStringLiteral("recordMicrophone"));
    connect(m_mic, &ToggleSwitch::toggled, this, [this](bool on) {
        if (on != m_model.captureMic())
            m_model.setCaptureMic(on);
    });
    m_micNote = microphoneNote(this);
    page->addWidget(switchRow(QStringLiteral("Record microphone"), m_mic, m_micNote, this));
    page->addWidget(new SoundSourceCard(m_callbacks, this));
    m_clearAfterSave = new ToggleSwitch(this);
    m_clearAfterSave->setObjectName(QStringLiteral("clearAfterSave"));
    connect(m_clearAfterSave, &ToggleSwitch::toggled, this,
            [](bool on) { ClipSettings::setClearAfterSave(on); });
    auto *clearNote = label(QStringLiteral("The replay starts empty after each save, so the next "
                                           "clip never repeats the last one."),
                            12, QFont::Normal, Palette::white(0.5), this);
    clearNote->setWordWrap(true);
    page->addWidget(
        switchRow(QStringLiteral("Clear after save"), m_clearAfterSave, clearNote, this));
    page->addWidget(qualityRow());
    m_memory = label(QString(), 12, QFont::Normal, Palette::white(0.5), this);
    m_memory->setObjectName(QStringLiteral("replayMemory"));
    m_memory->setWordWrap(true);
    m_memory->setContentsMargins(4, 0, 4, 0);
    page->addWidget(m_memory);

    page->addSpacing(4);
    page->addWidget(caption(QStringLiteral("ACCOUNT"), this));
    m_account = new QVBoxLayout;
    page->addLayout(m_account);
    page->addStretch(1);

    m_memoryPoll.setInterval(std::chrono::seconds(5));
    connect(&m_memoryPoll, &QTimer::timeout, this, &SettingsPage::refreshMemory);

    for (auto signal : {&AppModel::hotkeyNameChanged, &AppModel::isCapturingHotkeyChanged,
                        &AppModel::hotkeyWorksEverywhereChanged})
        connect(&m_model, signal, this, &SettingsPage::refreshKey);
    for (auto signal : {&AppModel::armOnLaunchChanged, &AppModel::captureMicChanged,
                        &AppModel::isClippingChanged, &AppModel::isBusyChanged})
        connect(&m_model, signal, this, &SettingsPage::refreshToggles);
    for (auto signal : {&AppModel::clipLengthChanged, &AppModel::isClippingChanged,
                        &AppModel::lengthKeyNamesChanged})
        connect(&m_model, signal, this, &SettingsPage::refreshMemory);
    refreshKey();
    refreshToggles();
    refreshMemory();
}

// The recording quality: full, or half the pixels a second for a computer that cannot keep up
// (the status line says when it does not), either as fluid motion or as sharp text. Read at the
// next arming, like the microphone.
QWidget *SettingsPage::qualityRow()
{
    auto *card = new Card(this);
    auto *column = new QVBoxLayout(card);
    column->setContentsMargins(12, 10, 12, 10);
    column->setSpacing(8);
    column->addWidget(label(QStringLiteral("Quality"), 13, QFont::Normal, Qt::white, card));
    auto *choices = new WrappingRow(card);
    const std::pair<CaptureQuality, QString> offered[] = {
        {CaptureQuality::full, QStringLiteral("1080p, 60 fps")},
        {CaptureQuality::smooth720p60, QStringLiteral("Smooth: 720p, 60 fps")},
        {CaptureQuality::sharp1080p30, QStringLiteral("Sharp: 1080p, 30 fps")}};
    for (const auto &[quality, text] : offered) {
        auto *choice = button(text, QStringLiteral("quality") + quality.text(), Look::pill,
                              Palette::white(0.8), 12, card);
        connect(choice, &QPushButton::clicked, this, [this, quality] {
            ClipSettings::setQuality(quality);
            refreshQuality();
        });
        choices->addWidget(choice);
        m_qualities.append({quality, choice});
    }
    column->addWidget(choices);
    auto *note = label(QStringLiteral("If this computer cannot keep up, Smooth keeps motion fluid "
                                      "and Sharp keeps text crisp. Used from the next time "
                                      "recording starts."),
                       12, QFont::Normal, Palette::white(0.5), card);
    note->setWordWrap(true);
    column->addWidget(note);
    refreshQuality();
    return card;
}

void SettingsPage::refreshQuality()
{
    const CaptureQuality current = ClipSettings::quality();
    for (const auto &[quality, choice] : m_qualities) {
        const bool selected = quality == current;
        restyle(choice, selected ? Look::accent : Look::pill,
                selected ? QColor(Qt::black) : Palette::white(0.8), 12);
    }
}

void SettingsPage::setAccountPanel(QWidget *panel)
{
    m_account->addWidget(panel);
}

void SettingsPage::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    refreshMemory();
    m_memoryPoll.start();
}

void SettingsPage::hideEvent(QHideEvent *event)
{
    QWidget::hideEvent(event);
    m_memoryPoll.stop();
}

void SettingsPage::refreshKey()
{
    const bool capturing = m_model.isCapturingHotkey();
    m_keyChip->setText(capturing ? QStringLiteral("Press a key…") : m_model.hotkeyName());
    m_change->setText(capturing ? QStringLiteral("Cancel") : QStringLiteral("Change"));
    // The same words as Home's notice, so the two never tell different stories.
    m_keyNote->setText(
        m_model.hotkeyWorksEverywhere()
            ? QStringLiteral("Works in any app.")
            : StatusTexts::keyAccessHint(StatusTexts::keyRemedy(HotkeyManager::shared())));
}

void SettingsPage::refreshToggles()
{
    const QSignalBlocker loginBlocker(m_login);
    const QSignalBlocker micBlocker(m_mic);
    m_login->setChecked(m_model.armOnLaunch());
    m_mic->setChecked(m_model.captureMic());
    const QSignalBlocker clearBlocker(m_clearAfterSave);
    m_clearAfterSave->setChecked(ClipSettings::clearAfterSave());
    m_mic->setEnabled(!m_model.isClipping() && !m_model.isBusy());
    m_micNote->setVisible(!m_mic->isEnabled());
    m_loginNote->setVisible(m_model.armOnLaunch() && AutostartEntry::installedProgram().isEmpty());
}

void SettingsPage::refreshMemory()
{
    std::optional<double> rate;
    if (m_callbacks.replayBytesPerSecond)
        rate = m_callbacks.replayBytesPerSecond();
    // The replay keeps the longest length anyone can ask for, the clip length or a length's key.
    m_memory->setText(memoryText(rate, ClipSettings::keptDuration()));
}
