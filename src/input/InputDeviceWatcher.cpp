#include "input/InputDeviceWatcher.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <sys/inotify.h>

bool InputDeviceWatcher::isDeviceName(const char *name)
{
    return std::strncmp(name, "event", 5) == 0 && name[5] != '\0';
}

bool InputDeviceWatcher::watch(const QString &directory)
{
    m_directory = QFile::encodeName(directory).toStdString();
    m_inotify.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!m_inotify.isValid())
        return false;
    const uint32_t mask =
        IN_CREATE | IN_ATTRIB | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_DELETE_SELF;
    if (inotify_add_watch(m_inotify.get(), m_directory.c_str(), mask | IN_ONLYDIR) < 0) {
        m_inotify.reset();
        return false;
    }
    return true;
}

std::vector<std::string> InputDeviceWatcher::currentDevices() const
{
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR *)> dir(opendir(m_directory.c_str()), closedir);
    if (!dir)
        return names;
    while (const dirent *entry = readdir(dir.get())) {
        if (isDeviceName(entry->d_name))
            names.emplace_back(entry->d_name);
    }
    return names;
}

std::vector<InputDeviceWatcher::Change> InputDeviceWatcher::readChanges(bool *folderGone)
{
    std::vector<Change> changes;
    alignas(inotify_event) char buffer[4096];
    for (;;) {
        const ssize_t size = ::read(m_inotify.get(), buffer, sizeof buffer);
        if (size <= 0)
            break; // EAGAIN: drained
        for (ssize_t offset = 0; offset + ssize_t(sizeof(inotify_event)) <= size;) {
            const auto *event = reinterpret_cast<const inotify_event *>(buffer + offset);
            offset += ssize_t(sizeof(inotify_event) + event->len);
            if (event->mask & (IN_DELETE_SELF | IN_IGNORED)) {
                *folderGone = true;
                continue;
            }
            if (event->len == 0 || !isDeviceName(event->name))
                continue;
            const bool removed = event->mask & (IN_DELETE | IN_MOVED_FROM);
            changes.push_back({removed ? Change::Kind::removed : Change::Kind::appeared,
                               std::string(event->name)});
        }
    }
    return changes;
}
