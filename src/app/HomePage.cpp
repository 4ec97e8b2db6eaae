#include "app/HomePage.h"

#include "app/AppModel.h"
#include "app/ClipRow.h"
#include "app/DashboardCallbacks.h"
#include "app/DashboardStyle.h"
#include "app/StatusLine.h"
#include "app/StatusTexts.h"
#include "core/ClipSettings.h"
#include "core/Palette.h"
#include "input/HotkeyManager.h"
#include "input/InputAccess.h"
#include "input/PermissionTexts.h"

#include <QHBoxLayout>
#include <QVBoxLayout>

using namespace DashboardStyle;

namespace {

const QColor orange = QColor::fromRgbF(1.0f, 0.62f, 0.04f);

QString wholeSeconds(double seconds)
{
    return QString::number(int(seconds)) + QLatin1Char('s');
}

} // namespace

HomePage::HomePage(AppModel &model, const DashboardCallbacks &callbacks, QWidget *parent)
    : QWidget(parent)
    , m_model(model)
    , m_callbacks(callbacks)
{
    setObjectName(QStringLiteral("homePage"));
    auto *page = new QVBoxLayout(this);
    page->setContentsMargins(0, 0, 0, 0);
    page->setSpacing(14);

    auto *titleRow = new QHBoxLayout;
    titleRow->setSpacing(12);
    titleRow->addWidget(label(QStringLiteral("Replay"), 26, QFont::DemiBold, Qt::white, this));
    auto *pill = new Card(this, Palette::white(0.06));
    auto *pillRow = new QHBoxLayout(pill);
    pillRow->setContentsMargins(10, 4, 12, 4);
    pillRow->setSpacing(6);
    m_dot = new QLabel(pill);
    m_dot->setFixedSize(8, 8);
    m_pillText = label(QString(), 12, QFont::Medium, Palette::white(0.55), pill);
    m_pillText->setObjectName(QStringLiteral("statePill"));
    pillRow->addWidget(m_dot);
    pillRow->addWidget(m_pillText);
    titleRow->addWidget(pill, 0, Qt::AlignVCenter);
    titleRow->addStretch(1);
    page->addLayout(titleRow);

    page->addWidget(new StatusLine(m_model, QStringLiteral("status"), this));

    auto *actions = new QHBoxLayout;
    actions->setSpacing(10);
    m_arm = button(QString(), QStringLiteral("arm"), Look::accent);
    m_arm->setIconSize(QSize(14, 14));
    connect(m_arm, &QPushButton::clicked, this, [this] {
        if (m_model.isClipping())
            call(m_callbacks.onStop);
        else
            call(m_callbacks.onStart);
    });
    actions->addWidget(m_arm);
    m_save = button(QString(), QStringLiteral("save"), Look::pill);
    m_save->setIcon(QIcon(icon(QStringLiteral("scissors"), Qt::white, 14)));
    m_save->setIconSize(QSize(14, 14));
    connect(m_save, &QPushButton::clicked, this, [this] { call(m_callbacks.onSaveClip); });
    actions->addWidget(m_save);
    m_saveKey = keyChip(12, this);
    m_saveKey->setObjectName(QStringLiteral("saveKey"));
    actions->addWidget(m_saveKey);
    actions->addStretch(1);
    page->addLayout(actions);

    // Where the clip key does not reach other programs, say what makes it do so. On this
    // desktop that is read access to the keyboards; clicking shows the full help under it.
    m_keyNotice = new Card(this, QColor::fromRgbF(1.0f, 0.62f, 0.04f, 0.16f));
    m_keyNotice->setObjectName(QStringLiteral("keyNotice"));
    m_keyNotice->setClickable(true);
    auto *notice = new QVBoxLayout(m_keyNotice);
    notice->setContentsMargins(12, 9, 12, 9);
    notice->setSpacing(2);
    m_keyNoticeTitle = label(QString(), 12, QFont::DemiBold, orange, m_keyNotice);
    auto *noticeText = label(StatusTexts::keyAccessHint(), 12, QFont::Normal, orange, m_keyNotice);
    noticeText->setObjectName(QStringLiteral("keyNoticeText"));
    noticeText->setWordWrap(true);
    notice->addWidget(m_keyNoticeTitle);
    notice->addWidget(noticeText);
    connect(m_keyNotice, &Card::clicked, this, &HomePage::toggleKeyHelp);
    page->addWidget(m_keyNotice);
    m_keyHelp = label(QString(), 12, QFont::Normal, Palette::white(0.7), this);
    m_keyHelp->setObjectName(QStringLiteral("keyHelp"));
    m_keyHelp->setWordWrap(true);
    // The help holds a command to type; it can be selected and copied.
    m_keyHelp->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_keyHelp->setContentsMargins(12, 0, 12, 0);
    m_keyHelp->hide();
    page->addWidget(m_keyHelp);

    page->addSpacing(6);
    page->addWidget(caption(QStringLiteral("CLIP LENGTH"), this));
    auto *lengths = new QHBoxLayout;
    lengths->setSpacing(8);
    for (const double seconds : ClipSettings::lengthOptions) {
        auto *choice =
            button(wholeSeconds(seconds), QStringLiteral("length%1").arg(int(seconds)), Look::pill);
        choice->setMinimumWidth(56);
        connect(choice, &QPushButton::clicked, this, [this, seconds] {
            m_model.setClipLength(seconds);
            ClipSettings::setMaxDuration(m_model.clipLength());
        });
        lengths->addWidget(choice);
        m_lengths << choice;
    }
    lengths->addStretch(1);
    page->addLayout(lengths);

    auto *micRow = new QHBoxLayout;
    micRow->addWidget(label(QStringLiteral("Microphone"), 13, QFont::Normal, Qt::white, this));
    micRow->addStretch(1);
    m_mic = new ToggleSwitch(this);
    m_mic->setObjectName(QStringLiteral("microphone"));
    connect(m_mic, &ToggleSwitch::toggled, this, [this](bool on) {
        if (on != m_model.captureMic())
            m_model.setCaptureMic(on);
    });
    micRow->addWidget(m_mic);
    auto *micCard = new Card(this);
    auto *micColumn = new QVBoxLayout(micCard);
    micColumn->setContentsMargins(12, 10, 12, 10);
    micColumn->setSpacing(4);
    micColumn->addLayout(micRow);
    m_micNote = microphoneNote(micCard);
    micColumn->addWidget(m_micNote);
    page->addWidget(micCard);

    page->addSpacing(6);
    page->addWidget(caption(QStringLiteral("LATEST CLIP"), this));
    m_latest = new QVBoxLayout;
    page->addLayout(m_latest);
    page->addStretch(1);

    for (auto signal :
         {&AppModel::isClippingChanged, &AppModel::isBusyChanged, &AppModel::isSavingChanged})
        connect(&m_model, signal, this, &HomePage::refreshState);
    for (auto signal : {&AppModel::hotkeyNameChanged, &AppModel::hotkeyWorksEverywhereChanged})
        connect(&m_model, signal, this, &HomePage::refreshKey);
    connect(&m_model, &AppModel::clipLengthChanged, this, &HomePage::refreshLengths);
    connect(&m_model, &AppModel::captureMicChanged, this, &HomePage::refreshState);
    connect(&m_model, &AppModel::clipsChanged, this, &HomePage::refreshLatest);
    refreshState();
    refreshKey();
    refreshLengths();
    refreshLatest();
}

void HomePage::refreshState()
{
    const bool clipping = m_model.isClipping();
    m_dot->setStyleSheet(QStringLiteral("background: %1; border-radius: 4px;")
                             .arg(clipping ? QStringLiteral("rgb(255,69,58)")
                                           : QStringLiteral("rgba(255,255,255,64)")));
    m_pillText->setText(clipping ? QStringLiteral("Recording") : QStringLiteral("Idle"));

    // The first true condition names the button.
    QString text = QStringLiteral("Arm");
    if (m_model.isBusy())
        text = QStringLiteral("Starting…");
    else if (m_model.isSaving())
        text = QStringLiteral("Saving…");
    else if (clipping)
        text = QStringLiteral("Stop");
    m_arm->setText(text);
    m_arm->setIcon(
        QIcon(icon(clipping ? QStringLiteral("stop") : QStringLiteral("record"), Qt::black, 14)));
    m_arm->setEnabled(!m_model.isBusy());

    const QSignalBlocker blocker(m_mic);
    m_mic->setChecked(m_model.captureMic());
    m_mic->setEnabled(!clipping && !m_model.isBusy());
    m_micNote->setVisible(!m_mic->isEnabled());
}

void HomePage::refreshKey()
{
    m_saveKey->setText(m_model.hotkeyName());
    m_keyNoticeTitle->setText(m_model.hotkeyName() + QStringLiteral(" only works in this window"));
    m_keyNotice->setVisible(!m_model.hotkeyWorksEverywhere());
    // Worded for this desktop: a key of its own where it has no global shortcuts.
    if (auto *text = m_keyNotice->findChild<QLabel *>(QStringLiteral("keyNoticeText")))
        text->setText(StatusTexts::keyAccessHint(StatusTexts::keyRemedy(HotkeyManager::shared())));
    if (m_model.hotkeyWorksEverywhere())
        m_keyHelp->hide();
}

void HomePage::toggleKeyHelp()
{
    if (!m_keyHelp->isHidden()) {
        m_keyHelp->hide();
        return;
    }
    // Asking is a good moment to try the key's paths again: the user may just have joined the
    // group. The help is worded for what works after that.
    HotkeyManager &hotkeys = HotkeyManager::shared();
    hotkeys.retryPaths();
    if (m_model.hotkeyWorksEverywhere())
        return;
    m_keyHelp->setText(
        PermissionTexts::hotkeyHelp(InputAccess::keyboardsReadable(), hotkeys.x11KeysWork()).text);
    m_keyHelp->show();
}

void HomePage::refreshLengths()
{
    m_save->setText(QStringLiteral("Save last ") + wholeSeconds(m_model.clipLength()));
    for (int i = 0; i < m_lengths.size(); ++i) {
        const bool selected = ClipSettings::lengthOptions[size_t(i)] == m_model.clipLength();
        restyle(m_lengths[i], selected ? Look::accent : Look::pill,
                selected ? QColor(Qt::black) : Palette::white(0.8));
    }
}

void HomePage::refreshLatest()
{
    while (QLayoutItem *item = m_latest->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    const QList<ClipFile> clips = m_model.clips();
    if (!clips.isEmpty())
        m_latest->addWidget(new ClipRow(clips.first(), m_model, m_callbacks, this));
}
