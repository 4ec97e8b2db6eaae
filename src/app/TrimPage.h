#pragma once

// moc cannot parse <compare>, which media times need; it needs none of them.
#ifndef Q_MOC_RUN
#include "replay/ClipTrim.h"
#endif

#include <QFutureWatcher>
#include <QUrl>
#include <QWidget>

class AppModel;
class ElidedLabel;
class QLabel;
class QMediaPlayer;
class QPushButton;
class QSlider;
class QVideoFrame;
class QVideoSink;
struct DashboardCallbacks;

// The trim view, over the tabs while the model names a clip to trim: the clip plays in it (Qt
// Multimedia), the user steps to a frame (the buttons, or Left and Right), marks it as the cut's
// first frame ("Set in", I) or its last ("Set out", O), and "Save trimmed copy" writes the copy
// beside the clip through the shell. In and out are frames of the clip's own index, read off the
// main thread when the view opens, so the cut is exactly the frames the user saw, whatever the
// player's millisecond positions round to. Main thread only.
class TrimPage : public QWidget
{
    Q_OBJECT

public:
    TrimPage(AppModel &model, const DashboardCallbacks &callbacks, QWidget *parent = nullptr);
    ~TrimPage() override;

    // The frame shown, and the cut's first and last frames (indexes into the clip's frames).
    int frame() const { return m_frame; }
    int inFrame() const { return m_in; }
    int outFrame() const { return m_out; }
    int frameCount() const { return int(m_frames.starts.size()); }

protected:
    void keyPressEvent(QKeyEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    void open();
    void framesRead();
    void showFrame(int index);
    void stepBy(int frames);
    void setIn();
    void setOut();
    void save();
    void togglePlay();
    void playerMoved(qint64 milliseconds);
    void videoFrame(const QVideoFrame &frame);
    void showPicture();
    void refresh();
    // When the frame `index` ends: the next one's start, or the clip's end after the last.
    MediaTime endOf(int index) const;

    AppModel &m_model;
    const DashboardCallbacks &m_callbacks;
    QUrl m_clip;
    ClipTrim::Frames m_frames;
    QString m_problem; // why the clip's frames could not be read
    int m_frame = 0;
    int m_in = 0;
    int m_out = -1;
    bool m_seeking = false; // a step moved the player; its position change is ours
    QFutureWatcher<ClipTrim::Frames> m_reading;
    QMediaPlayer *m_player = nullptr;
    QVideoSink *m_sink = nullptr;
    QImage m_picture;

    ElidedLabel *m_name = nullptr;
    QLabel *m_view = nullptr;
    QSlider *m_slider = nullptr;
    QLabel *m_position = nullptr;
    QLabel *m_cut = nullptr;
    QPushButton *m_play = nullptr;
    QPushButton *m_previous = nullptr;
    QPushButton *m_next = nullptr;
    QPushButton *m_setIn = nullptr;
    QPushButton *m_setOut = nullptr;
    QPushButton *m_save = nullptr;
};
