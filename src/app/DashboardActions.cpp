#include "app/DashboardActions.h"

#include "app/AppModel.h"
#include "app/ArmingController.h"
#include "app/ClipLibrary.h"
#include "app/ClipSaver.h"
#include "app/ShareActions.h"
#include "engine/ClipEngine.h"
#include "input/ClipHotkey.h"
#include "input/HotkeyManager.h"

#include <QPointer>

namespace {

// A replay shorter than this says too little about the rate: the first seconds hold the
// encoder's start-up and a key frame that weighs more than the frames after it.
constexpr double minimumMeasuredSeconds = 5;

// `action` on the object behind `self`, while it lives.
template<typename T, typename F> auto weakly(QPointer<T> self, F action)
{
    return [self, action](auto &&...arguments) {
        if (self)
            action(*self, arguments...);
    };
}

} // namespace

DashboardActions::DashboardActions(ArmingController &arming, ClipSaver &saver, ClipLibrary &library,
                                   ShareActions &share, ClipEngine &engine, AppModel &model,
                                   QObject *parent)
    : QObject(parent)
    , m_arming(arming)
    , m_saver(saver)
    , m_library(library)
    , m_share(share)
    , m_engine(engine)
    , m_model(model)
{
}

DashboardCallbacks DashboardActions::callbacks()
{
    const QPointer<DashboardActions> self(this);
    DashboardCallbacks callbacks;
    callbacks.onStart = weakly(self, [](DashboardActions &a) { a.m_arming.start(); });
    callbacks.onStop = weakly(self, [](DashboardActions &a) { a.m_arming.stop(); });
    callbacks.onSaveClip = weakly(self, [](DashboardActions &a) { a.m_saver.save(); });
    callbacks.onOpen =
        weakly(self, [](DashboardActions &a, const QUrl &url) { a.m_library.openClip(url); });
    callbacks.onReveal = weakly(self, [](DashboardActions &a) { a.m_library.revealFolder(); });
    callbacks.onCopy =
        weakly(self, [](DashboardActions &a, const QUrl &url) { a.m_library.copyClip(url); });
    callbacks.onShare =
        weakly(self, [](DashboardActions &a, const QUrl &url) { a.m_share.shareClip(url); });
    callbacks.onShareAll = weakly(self, [](DashboardActions &a) { a.m_share.shareAllClips(); });
    callbacks.onRefresh =
        weakly(self, [](DashboardActions &a) { a.m_library.refreshClips(false); });
    callbacks.onChangeHotkey = weakly(self, [](DashboardActions &a) { a.changeHotkey(); });
    callbacks.onDelete = weakly(self, [](DashboardActions &a, const QUrl &url) {
        // A shared clip's link is taken down with it.
        if (a.m_library.deleteClip(url))
            a.m_share.takeDown(url);
    });
    callbacks.replayBytesPerSecond = [self]() -> std::optional<double> {
        return self ? self->replayBytesPerSecond() : std::nullopt;
    };
    return callbacks;
}

void DashboardActions::changeHotkey()
{
    HotkeyManager &hotkeys = HotkeyManager::shared();
    if (m_model.isCapturingHotkey()) {
        hotkeys.cancelCapture();
        m_model.setIsCapturingHotkey(false);
        m_model.setStatus(m_arming.idleStatus());
        return;
    }
    m_model.setIsCapturingHotkey(true);
    m_model.setStatus(QStringLiteral("Press the new clip key. Esc cancels."));
    const QPointer<DashboardActions> self(this);
    hotkeys.beginCapture([self](bool saved) {
        if (!self)
            return;
        AppModel &model = self->m_model;
        model.setIsCapturingHotkey(false);
        model.setHotkeyName(ClipHotkey::displayName());
        if (saved)
            model.setStatus(QStringLiteral("Clip key is %1.").arg(ClipHotkey::displayName()));
        else
            model.setStatus(model.isClipping() ? self->m_arming.armedStatus()
                                               : self->m_arming.idleStatus());
    });
}

std::optional<double> DashboardActions::replayBytesPerSecond()
{
    if (m_engine.isArmed()) {
        const ReplayBuffer &buffer = m_engine.buffer();
        const double seconds = buffer.bufferedDuration();
        if (seconds >= minimumMeasuredSeconds)
            m_replayRate = double(buffer.heldBytes()) / seconds;
    }
    return m_replayRate;
}
