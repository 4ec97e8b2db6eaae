#include "app/DashboardActions.h"

#include "app/AppModel.h"
#include "app/ArmingController.h"
#include "app/ClipLibrary.h"
#include "app/ClipSaver.h"
#include "app/ShareActions.h"
#include "app/StatusTexts.h"
#include "capture/pulse/AppSoundSource.h"
#include "core/LengthKeys.h"
#include "engine/ClipEngine.h"
#include "input/ClipHotkey.h"
#include "input/HotkeyManager.h"
#include "replay/ClipTrim.h"

#include <QDir>
#include <QFileInfo>
#include <QPointer>
#include <QtConcurrent>

#include <qcoro/qcorofuture.h>
#include <qcoro/qcorotask.h>

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
    callbacks.onChangeLengthKey =
        weakly(self, [](DashboardActions &a, int seconds) { a.changeLengthKey(seconds); });
    callbacks.onClearLengthKey =
        weakly(self, [](DashboardActions &a, int seconds) { a.clearLengthKey(seconds); });
    callbacks.onTrim =
        weakly(self, [](DashboardActions &a, const QUrl &url) { a.m_model.setTrimClip(url); });
    callbacks.onTrimStartChosen = [](const QUrl &url, MediaTime in) {
        // Encoding the cut's new start while the user looks for its end makes the save itself
        // only a copy.
        ClipTrim::prepare(url.toLocalFile(), in);
    };
    callbacks.onSaveTrim =
        weakly(self, [](DashboardActions &a, const QUrl &url, MediaTime in, MediaTime out) {
            a.saveTrim(url, in, out);
        });
    callbacks.playingApplications = [] {
        return QtConcurrent::run([] { return AppSoundSource::playingApplications(); });
    };
    callbacks.poster = [self](const QString &clip) {
        return self ? self->posters().poster(clip) : QFuture<ClipPosters::Poster>();
    };
    callbacks.replayBytesPerSecond = [self]() -> std::optional<double> {
        return self ? self->replayBytesPerSecond() : std::nullopt;
    };
    return callbacks;
}

void DashboardActions::changeHotkey()
{
    HotkeyManager &hotkeys = HotkeyManager::shared();
    if (m_model.capturingLength() != 0) {
        hotkeys.cancelCapture();
        m_model.setCapturingLength(0);
    }
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

void DashboardActions::changeLengthKey(int seconds)
{
    HotkeyManager &hotkeys = HotkeyManager::shared();
    const int capturing = m_model.capturingLength();
    if (capturing != 0 || m_model.isCapturingHotkey()) {
        hotkeys.cancelCapture();
        m_model.setIsCapturingHotkey(false);
        m_model.setCapturingLength(0);
        m_model.setStatus(m_model.isClipping() ? m_arming.armedStatus() : m_arming.idleStatus());
        // "Cancel" on the row being captured ends there; "Change" on another row starts anew.
        if (capturing == seconds)
            return;
    }
    m_model.setCapturingLength(seconds);
    m_model.setStatus(
        QStringLiteral("Press the key that saves the last %1 seconds. Esc cancels.").arg(seconds));
    const QPointer<DashboardActions> self(this);
    hotkeys.beginLengthCapture(seconds, [self, seconds](HotkeyManager::LengthCapture outcome) {
        if (!self)
            return;
        AppModel &model = self->m_model;
        model.setCapturingLength(0);
        model.setLengthKeyNames(AppModel::storedLengthKeyNames());
        switch (outcome) {
        case HotkeyManager::LengthCapture::saved:
            model.setStatus(QStringLiteral("%1 saves the last %2 seconds.")
                                .arg(model.lengthKeyNames().value(seconds))
                                .arg(seconds));
            break;
        case HotkeyManager::LengthCapture::clipKey:
            model.setStatus(QStringLiteral("%1 is the clip key. Choose another key for the last %2 "
                                           "seconds.")
                                .arg(ClipHotkey::displayName())
                                .arg(seconds));
            break;
        case HotkeyManager::LengthCapture::cancelled:
            model.setStatus(model.isClipping() ? self->m_arming.armedStatus()
                                               : self->m_arming.idleStatus());
            break;
        }
    });
}

void DashboardActions::clearLengthKey(int seconds)
{
    LengthKeys::clear(seconds);
    m_model.setLengthKeyNames(AppModel::storedLengthKeyNames());
    m_model.setStatus(QStringLiteral("No key saves the last %1 seconds now.").arg(seconds));
}

ClipPosters &DashboardActions::posters()
{
    if (!m_posters)
        m_posters = std::make_unique<ClipPosters>();
    return *m_posters;
}

void DashboardActions::saveTrim(const QUrl &clip, MediaTime in, MediaTime out)
{
    if (m_trimming)
        return;
    m_trimming = true;
    m_model.setStatus(QStringLiteral("Saving the trimmed copy…"));
    runTrim(clip, in, out);
}

QCoro::Task<void> DashboardActions::runTrim(QUrl clip, MediaTime in, MediaTime out)
{
    const QPointer<DashboardActions> self(this);
    QString status;
    QString written;
    try {
        // Kept while awaited: the answer lives in the future.
        QFuture<ClipTrim::Trimmed> trimming = ClipTrim::trim({clip.toLocalFile(), in, out});
        const ClipTrim::Trimmed trimmed = co_await trimming;
        written = trimmed.path;
        status = QStringLiteral("Saved the trimmed copy as %1, beside the clip in %2.")
                     .arg(QFileInfo(trimmed.path).fileName(),
                          QDir::toNativeSeparators(QFileInfo(trimmed.path).absolutePath()));
    } catch (const std::exception &error) {
        status = StatusTexts::forError(error);
    }
    if (!self)
        co_return;
    m_trimming = false;
    m_model.setStatus(status);
    if (!written.isEmpty())
        m_library.refreshClips(false);
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
