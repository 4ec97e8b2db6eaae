// The application delegate's side of the dashboard: making and showing its window, the
// callbacks the dashboard acts through, and binding a new clip key.

#include "app/AppDelegate.h"
#include "app/DashboardView.h"
#include "app/DashboardWindow.h"
#include "input/ClipHotkey.h"
#include "input/HotkeyManager.h"

#include <QApplication>

namespace {

// A replay shorter than this says too little about the rate: the first seconds hold the
// encoder's start-up and a key frame that weighs more than the frames after it.
constexpr double minimumMeasuredSeconds = 5;

} // namespace

void AppDelegate::presentDashboard()
{
    if (m_library)
        m_library->refreshClips(false);
    if (!m_window) {
        auto *view = new DashboardView(m_model, dashboardCallbacks());
        m_window = new DashboardWindow(view, m_mainMenu);
        m_window->setAttribute(Qt::WA_QuitOnClose, false);
        connect(m_window, &DashboardWindow::becameActive, this, [this] {
            if (m_library)
                m_library->refreshClips(false);
        });
        connect(qApp, &QCoreApplication::aboutToQuit, m_window, &DashboardWindow::saveFrame);
    }
    m_window->bringForward();
}

DashboardCallbacks AppDelegate::dashboardCallbacks()
{
    // Each callback holds the delegate weakly and does nothing once it is gone.
    QPointer<AppDelegate> self(this);
    auto library = [self]() -> ClipLibrary * { return self ? self->m_library.get() : nullptr; };
    DashboardCallbacks callbacks;
    callbacks.onStart = [self] {
        if (self)
            self->startClipping();
    };
    callbacks.onStop = [self] {
        if (self)
            self->stopClipping();
    };
    callbacks.onSaveClip = [self] {
        if (self)
            self->saveClip();
    };
    callbacks.onOpen = [library](const QUrl &url) {
        if (ClipLibrary *clips = library())
            clips->openClip(url);
    };
    callbacks.onReveal = [library] {
        if (ClipLibrary *clips = library())
            clips->revealFolder();
    };
    callbacks.onCopy = [library](const QUrl &url) {
        if (ClipLibrary *clips = library())
            clips->copyClip(url);
    };
    callbacks.onShare = [self](const QUrl &url) {
        if (self && self->hooks.share)
            self->hooks.share(url);
    };
    callbacks.onShareAll = [self] {
        if (self && self->hooks.shareAll)
            self->hooks.shareAll();
    };
    callbacks.onRefresh = [library] {
        if (ClipLibrary *clips = library())
            clips->refreshClips(false);
    };
    callbacks.onChangeHotkey = [self] {
        if (self)
            self->changeHotkey();
    };
    callbacks.onDelete = [self](const QUrl &url) {
        if (self)
            self->deleteClip(url);
    };
    callbacks.replayBytesPerSecond = [self]() -> std::optional<double> {
        return self ? self->replayBytesPerSecond() : std::nullopt;
    };
    return callbacks;
}

void AppDelegate::changeHotkey()
{
    HotkeyManager &hotkeys = HotkeyManager::shared();
    if (m_model.isCapturingHotkey()) {
        hotkeys.cancelCapture();
        m_model.setIsCapturingHotkey(false);
        m_model.setStatus(idleStatus());
        return;
    }
    m_model.setIsCapturingHotkey(true);
    m_model.setStatus(QStringLiteral("Press the new clip key. Esc cancels."));
    QPointer<AppDelegate> self(this);
    hotkeys.beginCapture([self](bool saved) {
        if (!self)
            return;
        AppModel &model = self->m_model;
        model.setIsCapturingHotkey(false);
        model.setHotkeyName(ClipHotkey::displayName());
        self->refreshStatusItem();
        if (saved)
            model.setStatus(QStringLiteral("Clip key is %1.").arg(ClipHotkey::displayName()));
        else
            model.setStatus(model.isClipping() ? self->armedStatus() : self->idleStatus());
    });
}

std::optional<double> AppDelegate::replayBytesPerSecond()
{
    if (m_engine->isArmed()) {
        const ReplayBuffer &buffer = m_engine->buffer();
        const double seconds = buffer.bufferedDuration();
        if (seconds >= minimumMeasuredSeconds)
            m_replayRate = double(buffer.heldBytes()) / seconds;
    }
    return m_replayRate;
}
