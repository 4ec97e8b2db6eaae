#pragma once

#include <QFileSystemWatcher>
#include <QObject>

// Watches the preferences file for changes made outside the program's own writes (another
// instance, an editor, a sync tool) and makes the settings that are kept in memory read it again.
// The folder is watched rather than the file: the store replaces the file on every write, which
// would end a watch on the file itself. Lives on a thread with an event loop.
class PreferencesWatch : public QObject
{
public:
    explicit PreferencesWatch(QObject *parent = nullptr);

private:
    QFileSystemWatcher m_watcher;
};
