#include "app/ArmingController.h"

#include "app/AppModel.h"
#include "app/ClipLibrary.h"
#include "app/StatusTexts.h"
#include "core/ClipSettings.h"
#include "engine/ClipEngine.h"
#include "input/ClipHotkey.h"
#include "input/HotkeyManager.h"
#include "input/PermissionOnce.h"
#include "input/ScreenAccess.h"

#include <QPointer>

#include <qcoro/qcorofuture.h>
#include <qcoro/qcorotask.h>

using namespace std::chrono_literals;

ArmingController::ArmingController(ClipEngine &engine, AppModel &model, ClipLibrary &library,
                                   QObject *parent)
    : QObject(parent)
    , m_engine(engine)
    , m_model(model)
    , m_library(library)
{
    m_restart.setSingleShot(true);
    m_restart.setInterval(1200ms);
    connect(&m_restart, &QTimer::timeout, this, [this] {
        if (m_state == State::restartPending && ClipSettings::keepRunning())
            start();
    });
    // The engine reports a drop on a pool thread, after its teardown.
    QPointer<ArmingController> self(this);
    m_engine.setOnStopped([self](const std::optional<QString> &) {
        QMetaObject::invokeMethod(
            self,
            [self] {
                if (self)
                    self->captureDropped();
            },
            Qt::QueuedConnection);
    });
    // The capture losing frames for more than a moment: said while it records.
    m_engine.setOnFallingBehind([self](double heldFps, int fps, int height) {
        QMetaObject::invokeMethod(
            self,
            [self, text = StatusTexts::forFallingBehind(heldFps, fps, height)] {
                if (self && self->m_state == State::armed)
                    self->m_model.setStatus(text);
            },
            Qt::QueuedConnection);
    });
}

ArmingController::~ArmingController()
{
    m_engine.setOnStopped({});
    m_engine.setOnFallingBehind({});
}

QString ArmingController::armedStatus() const
{
    const HotkeyManager &hotkeys = HotkeyManager::shared();
    return StatusTexts::armed(ClipHotkey::displayName(), int(m_model.clipLength()),
                              hotkeys.worksInOtherApps(), StatusTexts::keyRemedy(hotkeys));
}

QString ArmingController::idleStatus() const
{
    return StatusTexts::idle(ClipHotkey::displayName(), int(m_model.clipLength()));
}

void ArmingController::setState(State state)
{
    m_state = state;
    if (state != State::restartPending)
        m_restart.stop();
    m_model.setIsBusy(state == State::arming);
    if (state == State::armed)
        m_model.setIsClipping(true);
    else if (state != State::stopping)
        m_model.setIsClipping(false);
    emit stateChanged(state);
}

void ArmingController::start()
{
    if (m_state != State::idle && m_state != State::restartPending)
        return;
    setState(State::arming);
    m_model.setStatus(StatusTexts::arming());
    runStart();
}

QCoro::Task<void> ArmingController::runStart()
{
    QPointer<ArmingController> self(this);
    QString failure;
    try {
        QFuture<void> started = m_engine.start();
        co_await started;
    } catch (const std::exception &error) {
        failure = StatusTexts::forError(error);
    }
    if (!self)
        co_return;
    if (m_state == State::stopping) {
        // The user stopped while this arming ran: the stop goes on now that it has answered.
        if (failure.isEmpty()) {
            runStop();
        } else {
            setState(State::idle);
            m_model.setStatus(idleStatus());
        }
        co_return;
    }
    if (!failure.isEmpty()) {
        setState(State::idle);
        m_model.setStatus(failure);
        co_return;
    }
    ClipSettings::setKeepRunning(true);
    HotkeyManager &hotkeys = HotkeyManager::shared();
    hotkeys.setArmed(true);
    m_model.setHotkeyWorksEverywhere(hotkeys.worksInOtherApps());
    setState(State::armed);
    m_model.setStatus(armedStatus());
}

void ArmingController::stop()
{
    ClipSettings::setKeepRunning(false);
    switch (m_state) {
    case State::stopping:
        return;
    case State::arming:
        setState(State::stopping);
        return;
    case State::armed:
        setState(State::stopping);
        runStop();
        return;
    case State::idle:
    case State::restartPending:
        setState(State::idle);
        m_model.setStatus(idleStatus());
        return;
    }
}

QCoro::Task<void> ArmingController::runStop()
{
    QPointer<ArmingController> self(this);
    HotkeyManager::shared().setArmed(false);
    QFuture<SessionOutcome> stopped = m_engine.stop(true);
    const SessionOutcome session = co_await stopped;
    if (!self)
        co_return;
    setState(State::idle);
    const QString said = StatusTexts::forSession(session);
    m_model.setStatus(said.isEmpty() ? idleStatus() : said);
    if (session.file)
        m_library.refreshClips(false);
}

void ArmingController::captureDropped()
{
    // A stop of our own makes no news; only a drop while armed does.
    if (m_state != State::armed)
        return;
    HotkeyManager::shared().setArmed(false);
    if (!ClipSettings::keepRunning()) {
        setState(State::idle);
        m_model.setStatus(idleStatus());
        m_library.refreshClips(false);
        return;
    }
    setState(State::restartPending);
    m_model.setStatus(StatusTexts::restarting());
    m_restart.start();
}

void ArmingController::armAtLaunchIfWanted()
{
    if (!ClipSettings::armOnLaunch() && !ClipSettings::keepRunning())
        return;
    QTimer::singleShot(600ms, this, [this] {
        if (!ScreenAccess::isGranted() && PermissionOnce::screenCastNoticeShown())
            return;
        start();
    });
}

void ArmingController::resumeAfterWake()
{
    if (!ClipSettings::keepRunning() ||
        (m_state != State::idle && m_state != State::restartPending))
        return;
    m_model.setStatus(StatusTexts::resumingAfterWake());
    start();
}

void ArmingController::refreshStatus()
{
    m_model.setHotkeyWorksEverywhere(HotkeyManager::shared().worksInOtherApps());
    if (m_state == State::armed)
        m_model.setStatus(armedStatus());
}
