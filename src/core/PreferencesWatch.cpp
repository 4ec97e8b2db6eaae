#include "core/PreferencesWatch.h"

#include "core/ClipSettings.h"
#include "core/Preferences.h"

#include <QDir>
#include <QFileInfo>

PreferencesWatch::PreferencesWatch(QObject *parent)
    : QObject(parent)
{
    const QString folder = QFileInfo(Preferences::open()->fileName()).absolutePath();
    // The folder may not exist before the first write; then there is nothing to see changing
    // but our own writes, which keep the settings current themselves.
    QDir().mkpath(folder);
    m_watcher.addPath(folder);
    connect(&m_watcher, &QFileSystemWatcher::directoryChanged, this,
            [] { ClipSettings::reload(); });
}
