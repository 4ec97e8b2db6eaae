#pragma once

#include "input/EvdevKeyDecoder.h"
#include "input/InputDeviceWatcher.h"
#include "input/KeyInput.h"
#include "input/UniqueFd.h"

#include <QString>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

// The clip key path that needs no display server: a listen-only reader of every keyboard in the
// input folder, on a thread of its own ("vt-hotkey-tap"). It never grabs a device, so every key
// still reaches the desktop unchanged. Keyboards plugged in or out while it runs are followed.
// Modifiers are combined over all keyboards (Ctrl on one and F12 on another count together).
//
// Threads: start(), stop() and the destructor on the owner's thread; the sink runs on the tap
// thread, one key at a time, and must not block. Only the tap thread touches the devices while
// it runs.
class EvdevHotkeyTap
{
public:
    using Sink = std::function<void(const KeyInput &key)>;
    // Decides whether an opened event device is a keyboard worth reading.
    using KeyboardProbe = std::function<bool(int fd)>;

    EvdevHotkeyTap(QString directory, Sink sink, KeyboardProbe isKeyboard = isKeyboardDevice);
    ~EvdevHotkeyTap();
    EvdevHotkeyTap(const EvdevHotkeyTap &) = delete;
    EvdevHotkeyTap &operator=(const EvdevHotkeyTap &) = delete;

    // Watches the folder, opens its keyboards and starts the thread. False, with nothing left
    // running, when the folder cannot be watched or no keyboard can be opened for reading.
    bool start();
    // Wakes the thread, joins it and closes every device. Harmless when not running.
    void stop();
    bool isRunning() const { return m_thread.joinable(); }

    // Keyboards open right now (any thread).
    int keyboardCount() const { return m_keyboardCount.load(); }

    // A device with keys of a keyboard (codes 1 to 255), not just buttons: keyboards, and the
    // extra devices of media keys that carry the volume keys. Uses libevdev.
    static bool isKeyboardDevice(int fd);

private:
    struct Device
    {
        std::string name;
        UniqueFd fd;
        EvdevKeyDecoder decoder;
    };

    void run();
    void openDevice(const std::string &name);
    void closeDevice(size_t index);
    // False when the device is gone (end of file, ENODEV).
    bool readDevice(Device &device);
    void emitKey(uint32_t code, KeyInput::Action action);
    uint32_t combinedModifiers() const;

    const QString m_directory;
    const Sink m_sink;
    const KeyboardProbe m_isKeyboard;
    InputDeviceWatcher m_watcher;
    UniqueFd m_wake; // eventfd: stop() writes it
    std::vector<std::unique_ptr<Device>> m_devices;
    std::atomic<int> m_keyboardCount = 0;
    std::thread m_thread;
};
