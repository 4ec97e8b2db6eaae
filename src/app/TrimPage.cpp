#include "app/TrimPage.h"

#include "app/AppModel.h"
#include "app/DashboardCallbacks.h"
#include "app/DashboardStyle.h"
#include "app/StatusLine.h"
#include "app/StatusTexts.h"
#include "core/Palette.h"

#include <QFileInfo>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QMediaPlayer>
#include <QPushButton>
#include <QSlider>
#include <QUnhandledException>
#include <QVBoxLayout>
#include <QVideoFrame>
#include <QVideoSink>
#include <QtConcurrent>

#include <algorithm>
#include <cmath>

using namespace DashboardStyle;

namespace {

// "1:02.350": minutes, seconds and milliseconds, enough to tell frames at 60 a second apart.
QString timeText(double seconds)
{
    const long long milliseconds = std::llround(seconds * 1000);
    return QStringLiteral("%1:%2.%3")
        .arg(milliseconds / 60000)
        .arg(milliseconds / 1000 % 60, 2, 10, QLatin1Char('0'))
        .arg(milliseconds % 1000, 3, 10, QLatin1Char('0'));
}

} // namespace

TrimPage::TrimPage(AppModel &model, const DashboardCallbacks &callbacks, QWidget *parent)
    : QWidget(parent)
    , m_model(model)
    , m_callbacks(callbacks)
{
    setObjectName(QStringLiteral("trimPage"));
    setFocusPolicy(Qt::StrongFocus);
    auto *page = new QVBoxLayout(this);
    page->setContentsMargins(28, 24, 28, 20);
    page->setSpacing(10);

    auto *heading = new QHBoxLayout;
    heading->setSpacing(10);
    heading->addWidget(label(QStringLiteral("Trim"), 26, QFont::DemiBold, Qt::white, this));
    m_name = new ElidedLabel(QString(), this);
    m_name->setObjectName(QStringLiteral("trimClipName"));
    m_name->setFont(DashboardStyle::font(13, QFont::Normal));
    setTextColor(m_name, Palette::white(0.5));
    heading->addWidget(m_name, 1, Qt::AlignBottom);
    auto *back = button(QStringLiteral("Done"), QStringLiteral("closeTrim"), Look::pill);
    connect(back, &QPushButton::clicked, this, [this] { m_model.setTrimClip({}); });
    heading->addWidget(back);
    page->addLayout(heading);
    page->addWidget(new StatusLine(m_model, QStringLiteral("trimStatus"), this));

    m_view = new QLabel(this);
    m_view->setObjectName(QStringLiteral("trimPicture"));
    m_view->setAlignment(Qt::AlignCenter);
    m_view->setMinimumSize(320, 180);
    m_view->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Ignored);
    m_view->setStyleSheet(QStringLiteral("background: black; border-radius: 6px;"));
    page->addWidget(m_view, 1);

    m_slider = new QSlider(Qt::Horizontal, this);
    m_slider->setObjectName(QStringLiteral("trimSlider"));
    m_slider->setFocusPolicy(Qt::NoFocus);
    connect(m_slider, &QSlider::valueChanged, this, [this](int value) {
        if (value != m_frame)
            showFrame(value);
    });
    page->addWidget(m_slider);

    auto *controls = new QHBoxLayout;
    controls->setSpacing(8);
    m_play = button(QStringLiteral("Play"), QStringLiteral("playTrim"), Look::pill);
    connect(m_play, &QPushButton::clicked, this, &TrimPage::togglePlay);
    m_previous = button(QStringLiteral("◀ Frame"), QStringLiteral("previousFrame"), Look::pill);
    m_previous->setToolTip(QStringLiteral("One frame back (Left)"));
    connect(m_previous, &QPushButton::clicked, this, [this] { stepBy(-1); });
    m_next = button(QStringLiteral("Frame ▶"), QStringLiteral("nextFrame"), Look::pill);
    m_next->setToolTip(QStringLiteral("One frame on (Right)"));
    connect(m_next, &QPushButton::clicked, this, [this] { stepBy(1); });
    m_position = label(QString(), 12, QFont::Normal, Palette::white(0.7), this);
    m_position->setObjectName(QStringLiteral("trimPosition"));
    for (QWidget *widget : {static_cast<QWidget *>(m_play), static_cast<QWidget *>(m_previous),
                            static_cast<QWidget *>(m_next), static_cast<QWidget *>(m_position)})
        controls->addWidget(widget);
    controls->addStretch(1);
    page->addLayout(controls);

    auto *cut = new QHBoxLayout;
    cut->setSpacing(8);
    m_setIn = button(QStringLiteral("Set in"), QStringLiteral("setIn"), Look::pill);
    m_setIn->setToolTip(QStringLiteral("The cut starts on this frame (I)"));
    connect(m_setIn, &QPushButton::clicked, this, &TrimPage::setIn);
    m_setOut = button(QStringLiteral("Set out"), QStringLiteral("setOut"), Look::pill);
    m_setOut->setToolTip(QStringLiteral("The cut ends with this frame (O)"));
    connect(m_setOut, &QPushButton::clicked, this, &TrimPage::setOut);
    m_cut = label(QString(), 12, QFont::Normal, Palette::white(0.7), this);
    m_cut->setObjectName(QStringLiteral("trimCut"));
    m_save = button(QStringLiteral("Save trimmed copy"), QStringLiteral("saveTrimmed"),
                    Look::accent, Qt::black);
    connect(m_save, &QPushButton::clicked, this, &TrimPage::save);
    // The cut's summary on a line of its own: the buttons keep their full width beside it.
    cut->addWidget(m_setIn);
    cut->addWidget(m_setOut);
    cut->addStretch(1);
    cut->addWidget(m_save);
    page->addWidget(m_cut);
    page->addLayout(cut);
    // The keys step and mark wherever the user clicked last.
    for (QPushButton *control : findChildren<QPushButton *>())
        control->setFocusPolicy(Qt::NoFocus);

    connect(&m_reading, &QFutureWatcherBase::finished, this, &TrimPage::framesRead);
    connect(&m_model, &AppModel::trimClipChanged, this, &TrimPage::open);
    refresh();
}

TrimPage::~TrimPage()
{
    m_reading.cancel();
    m_reading.waitForFinished();
}

void TrimPage::open()
{
    const QUrl clip = m_model.trimClip();
    if (clip == m_clip)
        return;
    m_clip = clip;
    m_frames = {};
    m_problem.clear();
    m_frame = m_in = 0;
    m_out = -1;
    m_picture = {};
    m_view->clear();
    if (m_player)
        m_player->stop();
    m_name->setFullText(QFileInfo(clip.toLocalFile()).fileName());
    refresh();
    if (clip.isEmpty())
        return;
    if (!m_player) {
        // Made on first use: a window that never trims never loads the media backend.
        m_player = new QMediaPlayer(this);
        m_sink = new QVideoSink(this);
        m_player->setVideoSink(m_sink);
        connect(m_sink, &QVideoSink::videoFrameChanged, this, &TrimPage::videoFrame);
        connect(m_player, &QMediaPlayer::positionChanged, this, &TrimPage::playerMoved);
        connect(m_player, &QMediaPlayer::playbackStateChanged, this, &TrimPage::refresh);
    }
    m_player->setSource(clip);
    m_player->pause();
    // The index of a long clip takes a moment to read; the view stays live meanwhile.
    const QString path = clip.toLocalFile();
    m_reading.setFuture(QtConcurrent::run([path] { return ClipTrim::frames(path); }));
}

void TrimPage::framesRead()
{
    if (m_reading.isCanceled())
        return;
    try {
        try {
            m_frames = m_reading.result();
        } catch (const QUnhandledException &wrapped) {
            // QtConcurrent wraps what the task threw; the user reads the sentence inside.
            if (wrapped.exception())
                std::rethrow_exception(wrapped.exception());
            throw;
        }
    } catch (const std::exception &error) {
        m_problem = StatusTexts::forError(error);
        m_model.setStatus(m_problem);
    }
    if (!m_frames.starts.empty()) {
        m_in = 0;
        m_out = frameCount() - 1;
        m_slider->setRange(0, frameCount() - 1);
        showFrame(0);
    }
    refresh();
    setFocus();
}

MediaTime TrimPage::endOf(int index) const
{
    return index + 1 < frameCount() ? m_frames.starts[size_t(index) + 1] : m_frames.end;
}

void TrimPage::showFrame(int index)
{
    if (m_frames.starts.empty())
        return;
    m_frame = std::clamp(index, 0, frameCount() - 1);
    if (m_player) {
        if (m_player->playbackState() == QMediaPlayer::PlayingState)
            m_player->pause();
        // The player's positions are milliseconds; the middle of the frame lands on it whatever
        // way the player rounds.
        const double middle =
            (m_frames.starts[size_t(m_frame)].seconds() + endOf(m_frame).seconds()) / 2;
        m_seeking = true;
        m_player->setPosition(qint64(std::floor(middle * 1000)));
        m_seeking = false;
    }
    refresh();
}

void TrimPage::stepBy(int frames)
{
    showFrame(m_frame + frames);
}

void TrimPage::setIn()
{
    if (m_frames.starts.empty())
        return;
    m_in = m_frame;
    if (m_out < m_in)
        m_out = frameCount() - 1;
    call(m_callbacks.onTrimStartChosen, m_clip, m_frames.starts[size_t(m_in)]);
    refresh();
}

void TrimPage::setOut()
{
    if (m_frames.starts.empty())
        return;
    m_out = m_frame;
    if (m_in > m_out)
        m_in = 0;
    refresh();
}

void TrimPage::save()
{
    if (m_frames.starts.empty() || m_out < m_in)
        return;
    call(m_callbacks.onSaveTrim, m_clip, m_frames.starts[size_t(m_in)], endOf(m_out));
}

void TrimPage::togglePlay()
{
    if (!m_player || m_frames.starts.empty())
        return;
    if (m_player->playbackState() == QMediaPlayer::PlayingState)
        m_player->pause();
    else
        m_player->play();
}

void TrimPage::playerMoved(qint64 milliseconds)
{
    // While playing, the frame follows the player; a step of ours set the position itself.
    if (m_seeking || m_frames.starts.empty() ||
        m_player->playbackState() != QMediaPlayer::PlayingState)
        return;
    const MediaTime at = MediaTime::make(milliseconds, 1000);
    const auto next = std::upper_bound(m_frames.starts.begin(), m_frames.starts.end(), at);
    m_frame = std::max(0, int(next - m_frames.starts.begin()) - 1);
    refresh();
}

void TrimPage::videoFrame(const QVideoFrame &frame)
{
    if (!frame.isValid())
        return;
    m_picture = frame.toImage();
    showPicture();
}

void TrimPage::showPicture()
{
    if (m_picture.isNull())
        return;
    m_view->setPixmap(QPixmap::fromImage(
        m_picture.scaled(m_view->size(), Qt::KeepAspectRatio, Qt::SmoothTransformation)));
}

void TrimPage::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    showPicture();
}

void TrimPage::keyPressEvent(QKeyEvent *event)
{
    switch (event->key()) {
    case Qt::Key_Left:
        stepBy(-1);
        break;
    case Qt::Key_Right:
        stepBy(1);
        break;
    case Qt::Key_I:
        setIn();
        break;
    case Qt::Key_O:
        setOut();
        break;
    case Qt::Key_Space:
        togglePlay();
        break;
    default:
        QWidget::keyPressEvent(event);
        return;
    }
    event->accept();
}

void TrimPage::refresh()
{
    const bool ready = !m_frames.starts.empty();
    for (QPushButton *control : {m_play, m_previous, m_next, m_setIn, m_setOut, m_save})
        control->setEnabled(ready);
    m_slider->setEnabled(ready);
    if (!ready) {
        m_position->setText(m_problem.isEmpty() && !m_clip.isEmpty()
                                ? QStringLiteral("Reading the clip's frames…")
                                : QString());
        m_cut->clear();
        return;
    }
    const bool playing = m_player && m_player->playbackState() == QMediaPlayer::PlayingState;
    m_play->setText(playing ? QStringLiteral("Pause") : QStringLiteral("Play"));
    m_previous->setEnabled(m_frame > 0);
    m_next->setEnabled(m_frame + 1 < frameCount());
    {
        const QSignalBlocker blocker(m_slider);
        m_slider->setValue(m_frame);
    }
    m_position->setText(QStringLiteral("Frame %1 of %2 · %3")
                            .arg(m_frame + 1)
                            .arg(frameCount())
                            .arg(timeText(m_frames.starts[size_t(m_frame)].seconds())));
    const double in = m_frames.starts[size_t(m_in)].seconds();
    const double out = endOf(m_out).seconds();
    m_cut->setText(QStringLiteral("In %1 · Out %2 · %3 frames, %4 s")
                       .arg(timeText(in), timeText(out))
                       .arg(m_out - m_in + 1)
                       .arg(QString::number(out - in, 'f', 2)));
}
