#include "input/EvdevHotkeyTap.h"

#include "core/Log.h"

#include <libevdev/libevdev.h>

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>

EvdevHotkeyTap::EvdevHotkeyTap(QString directory, Sink sink, KeyboardProbe isKeyboard)
    : m_directory(std::move(directory))
    , m_sink(std::move(sink))
    , m_isKeyboard(std::move(isKeyboard))
{
}

EvdevHotkeyTap::~EvdevHotkeyTap()
{
    stop();
}

bool EvdevHotkeyTap::isKeyboardDevice(int fd)
{
    libevdev *raw = nullptr;
    if (libevdev_new_from_fd(fd, &raw) < 0)
        return false;
    const std::unique_ptr<libevdev, void (*)(libevdev *)> device(raw, libevdev_free);
    if (!libevdev_has_event_type(device.get(), EV_KEY))
        return false;
    for (unsigned code = KEY_ESC; code < BTN_MISC; ++code) {
        if (libevdev_has_event_code(device.get(), EV_KEY, code))
            return true;
    }
    return false;
}

bool EvdevHotkeyTap::start()
{
    if (isRunning())
        return true;
    if (!m_watcher.watch(m_directory))
        return false;
    for (const std::string &name : m_watcher.currentDevices())
        openDevice(name);
    if (m_devices.empty())
        return false;
    m_wake.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!m_wake.isValid()) {
        m_devices.clear();
        m_keyboardCount = 0;
        return false;
    }
    Log::system(
        QStringLiteral("hotkey reads %1 keyboard(s) in %2").arg(m_devices.size()).arg(m_directory));
    m_thread = std::thread([this] { run(); });
    return true;
}

void EvdevHotkeyTap::stop()
{
    if (!m_thread.joinable())
        return;
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t written = ::write(m_wake.get(), &one, sizeof one);
    m_thread.join();
    m_devices.clear();
    m_keyboardCount = 0;
    m_wake.reset();
}

void EvdevHotkeyTap::openDevice(const std::string &name)
{
    for (const auto &device : m_devices) {
        if (device->name == name)
            return;
    }
    const std::string path = m_watcher.pathOf(name);
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    // No access yet is normal: udev may still be setting the node's permissions, and inotify
    // tells us when it has.
    if (!fd.isValid() || !m_isKeyboard(fd.get()))
        return;
    auto device = std::make_unique<Device>();
    device->name = name;
    device->fd = std::move(fd);
    m_devices.push_back(std::move(device));
    m_keyboardCount = int(m_devices.size());
}

void EvdevHotkeyTap::closeDevice(size_t index)
{
    std::unique_ptr<Device> device = std::move(m_devices[index]);
    m_devices.erase(m_devices.begin() + ptrdiff_t(index));
    m_keyboardCount = int(m_devices.size());
    // Keys held on an unplugged keyboard are up now; the manager must not wait for their release.
    device->decoder.releaseAll(
        [this](uint32_t code, KeyInput::Action action) { emitKey(code, action); });
}

uint32_t EvdevHotkeyTap::combinedModifiers() const
{
    uint32_t modifiers = 0;
    for (const auto &device : m_devices)
        modifiers |= device->decoder.modifiers();
    return modifiers;
}

void EvdevHotkeyTap::emitKey(uint32_t code, KeyInput::Action action)
{
    m_sink(KeyInput {code, action, combinedModifiers()});
}

bool EvdevHotkeyTap::readDevice(Device &device)
{
    const auto sink = [this](uint32_t code, KeyInput::Action action) { emitKey(code, action); };
    input_event records[64];
    for (;;) {
        const ssize_t size = ::read(device.fd.get(), records, sizeof records);
        if (size > 0) {
            device.decoder.feed(records, size_t(size), sink);
            if (device.decoder.takeResyncRequest()) {
                unsigned char keyBits[KEY_CNT / 8 + 1] = {};
                const bool known = ioctl(device.fd.get(), EVIOCGKEY(sizeof keyBits), keyBits) >= 0;
                device.decoder.resync(known ? keyBits : nullptr, sizeof keyBits, sink);
            }
            continue;
        }
        if (size < 0 && (errno == EAGAIN || errno == EINTR))
            return true;
        // End of file (a pipe's writer left) or ENODEV (unplugged).
        return false;
    }
}

void EvdevHotkeyTap::run()
{
    pthread_setname_np(pthread_self(), "vt-hotkey-tap");
    std::vector<pollfd> fds;
    for (;;) {
        fds.clear();
        fds.push_back({m_wake.get(), POLLIN, 0});
        fds.push_back({m_watcher.fd(), POLLIN, 0});
        for (const auto &device : m_devices)
            fds.push_back({device->fd.get(), POLLIN, 0});
        if (::poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR)
                continue;
            Log::system(QStringLiteral("hotkey keyboard reader stopped: poll failed"));
            return;
        }
        if (fds[0].revents)
            return;
        // Devices before the folder's news, so keys already read are not lost to an unplug seen
        // in the same round; in order, so a modifier read just before a key counts for it.
        std::vector<size_t> gone;
        for (size_t i = 2; i < fds.size(); ++i) {
            if (!fds[i].revents)
                continue;
            const bool alive = (fds[i].revents & POLLIN) ? readDevice(*m_devices[i - 2]) : false;
            if (!alive || (fds[i].revents & (POLLERR | POLLNVAL)))
                gone.push_back(i - 2);
        }
        for (auto index = gone.rbegin(); index != gone.rend(); ++index)
            closeDevice(*index);
        if (fds[1].revents) {
            bool folderGone = false;
            for (const auto &change : m_watcher.readChanges(&folderGone)) {
                if (change.kind == InputDeviceWatcher::Change::Kind::appeared) {
                    const size_t before = m_devices.size();
                    openDevice(change.name);
                    if (m_devices.size() > before)
                        Log::system(QStringLiteral("hotkey keyboard added: %1")
                                        .arg(QString::fromStdString(change.name)));
                    continue;
                }
                for (size_t index = 0; index < m_devices.size(); ++index) {
                    if (m_devices[index]->name == change.name) {
                        closeDevice(index);
                        break;
                    }
                }
            }
            if (folderGone) {
                // Nothing more will be announced; keep reading the keyboards still open.
                Log::system(QStringLiteral("hotkey input folder %1 went away").arg(m_directory));
                m_watcher = InputDeviceWatcher();
            }
        }
    }
}
