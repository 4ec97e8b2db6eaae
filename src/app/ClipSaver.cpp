#include "app/ClipSaver.h"

#include "app/AppModel.h"
#include "app/ClipLibrary.h"
#include "app/ShareActions.h"
#include "app/StatusTexts.h"
#include "engine/ClipEngine.h"
#include "engine/ClipSound.h"

#include <QPointer>
#include <QUrl>

#include <qcoro/qcorofuture.h>
#include <qcoro/qcorotask.h>

using namespace std::chrono_literals;

ClipSaver::ClipSaver(ClipEngine &engine, AppModel &model, ClipLibrary &library, ShareActions &share,
                     QObject *parent)
    : QObject(parent)
    , m_engine(engine)
    , m_model(model)
    , m_library(library)
    , m_share(share)
{
}

void ClipSaver::save()
{
    begin(std::nullopt);
}

void ClipSaver::saveLength(double seconds)
{
    begin(seconds);
}

void ClipSaver::begin(std::optional<double> seconds)
{
    if (!m_engine.isArmed() || m_saving)
        return;
    const auto now = std::chrono::steady_clock::now();
    // An ignored press does not move the last attempt.
    if (m_lastAttempt.time_since_epoch().count() != 0 && now - m_lastAttempt < 1500ms)
        return;
    m_lastAttempt = now;
    m_saving = true;
    m_model.setIsSaving(true);
    m_model.setStatus(StatusTexts::saving());
    // The sound plays as the save begins, before the file exists: it answers the key press.
    ClipSound::playClip();
    run(seconds);
}

QCoro::Task<void> ClipSaver::run(std::optional<double> seconds)
{
    QPointer<ClipSaver> self(this);
    WrittenFile clip;
    QString failure;
    try {
        QFuture<WrittenFile> saved = seconds ? m_engine.saveClip(*seconds) : m_engine.saveClip();
        clip = co_await saved;
    } catch (const std::exception &error) {
        failure = StatusTexts::forError(error);
    }
    if (!self)
        co_return;
    if (failure.isEmpty()) {
        // A clip the writer would not take all of is still a clip in the library, but it does
        // not sound like a success.
        if (!clip.shortfall.isComplete())
            ClipSound::playError();
        // The clip key's own length is the one the replay is sized for: a save right after
        // arming is short for the obvious reason, and says nothing about it.
        if (!seconds)
            clip.askedSeconds = 0;
        m_model.setStatus(StatusTexts::forSavedClip(clip));
        m_model.setTab(AppModel::Tab::library);
        m_library.refreshClips(true);
        // Every saved clip goes up at once for a signed-in user.
        m_share.shareClip(QUrl::fromLocalFile(clip.path));
        emit clipSaved(clip.path);
    } else {
        ClipSound::playError();
        m_model.setStatus(failure);
        emit saveFailed(failure);
    }
    m_saving = false;
    m_model.setIsSaving(false);
}
