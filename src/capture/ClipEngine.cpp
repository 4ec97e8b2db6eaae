#include "capture/ClipEngine.h"

#include "capture/Paths.h"
#include "core/Log.h"

void ClipEngine::log(const QString &message)
{
    Log::appendLine(Paths::logFile(), message);
    Log::system(message);
}
