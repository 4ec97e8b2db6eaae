#pragma once

#include "input/UniqueFd.h"

#include <QString>

#include <string>
#include <vector>

// Follows the event devices of one folder (/dev/input) through inotify: which "event*" nodes
// appeared, changed their permissions (udev grants access a moment after creating the node) or
// went away. Never blocks; the owner polls `fd()` for readability. Not thread-safe.
class InputDeviceWatcher
{
public:
    struct Change
    {
        enum class Kind { appeared, removed };
        Kind kind;
        std::string name; // "event3"
    };

    // Starts watching. False when the folder cannot be watched (missing, unreadable).
    bool watch(const QString &directory);

    // The "event*" nodes in the folder now, in no particular order.
    std::vector<std::string> currentDevices() const;

    int fd() const { return m_inotify.get(); }

    // Reads what inotify has queued. `folderGone` turns true when the folder itself was removed.
    std::vector<Change> readChanges(bool *folderGone);

    std::string pathOf(const std::string &name) const { return m_directory + '/' + name; }

    static bool isDeviceName(const char *name);

private:
    std::string m_directory;
    UniqueFd m_inotify;
};
