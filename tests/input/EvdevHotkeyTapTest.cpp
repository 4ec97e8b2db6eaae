#include "input/EvdevHotkeyTap.h"
#include "input/ClipHotkey.h"

#include "input/EvdevRecords.h"
#include "input/HotkeyTestSupport.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <libevdev/libevdev-uinput.h>
#include <libevdev/libevdev.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using Action = KeyInput::Action;

class KeyLog
{
public:
    EvdevHotkeyTap::Sink sink()
    {
        return [this](const KeyInput &key) {
            std::scoped_lock lock(m_mutex);
            m_keys.push_back(key);
            m_changed.notify_all();
        };
    }
    // Waits until `count` keys arrived in all, then returns them all.
    std::vector<KeyInput> waitFor(size_t count)
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait_for(lock, 5s, [&] { return m_keys.size() >= count; });
        return m_keys;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<KeyInput> m_keys;
};

class FakeKeyboard
{
public:
    explicit FakeKeyboard(std::string path)
        : m_path(std::move(path))
    {
        EXPECT_EQ(mkfifo(m_path.c_str(), 0600), 0);
    }
    ~FakeKeyboard() { disconnect(); }

    // Opens the writing end once the tap has opened the reading end (a FIFO refuses a
    // non-blocking writer until then).
    bool connect()
    {
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while (std::chrono::steady_clock::now() < deadline) {
            m_fd = ::open(m_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            if (m_fd >= 0)
                return true;
            std::this_thread::sleep_for(5ms);
        }
        return false;
    }
    void disconnect()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }
    void send(const std::vector<unsigned char> &bytes)
    {
        ASSERT_EQ(::write(m_fd, bytes.data(), bytes.size()), ssize_t(bytes.size()));
    }
    void unplug() { ::unlink(m_path.c_str()); }

private:
    std::string m_path;
    int m_fd = -1;
};

TEST(EvdevHotkeyTap, StartsOnlyWithAKeyboardToRead)
{
    KeyLog log;
    EXPECT_FALSE(EvdevHotkeyTap("/nonexistent/input", log.sink(), isFifo).start());
    QTemporaryDir dir;
    EXPECT_FALSE(EvdevHotkeyTap(dir.path(), log.sink(), isFifo).start());
    // A node that is not a keyboard, and a keyboard-like node not named event*, do not count.
    ASSERT_TRUE(QFile(dir.filePath("event9")).open(QIODevice::WriteOnly));
    ASSERT_EQ(mkfifo(QFile::encodeName(dir.filePath("mouse0")).constData(), 0600), 0);
    EXPECT_FALSE(EvdevHotkeyTap(dir.path(), log.sink(), isFifo).start());
    // The real probe turns down a FIFO: it answers no input ioctl.
    FakeKeyboard pipe(QFile::encodeName(dir.filePath("event0")).toStdString());
    EXPECT_FALSE(EvdevHotkeyTap(dir.path(), log.sink()).start());
}

TEST(EvdevHotkeyTap, ReadsEveryKeyboardAndFollowsThemInAndOut)
{
    QTemporaryDir dir;
    const auto path = [&](const char *name) {
        return QFile::encodeName(dir.filePath(name)).toStdString();
    };
    FakeKeyboard first(path("event0"));
    KeyLog log;
    EvdevHotkeyTap tap(dir.path(), log.sink(), isFifo);
    ASSERT_TRUE(tap.start());
    EXPECT_TRUE(tap.isRunning());
    EXPECT_EQ(tap.keyboardCount(), 1);
    ASSERT_TRUE(first.connect());
    first.send(evdevKeyFrame(KEY_LEFTCTRL, 1));

    // Plugged in while running: found through the folder, read with the other's Ctrl held.
    FakeKeyboard second(path("event1"));
    ASSERT_TRUE(second.connect());
    second.send(evdevKeyFrame(KEY_F12, 1));
    second.send(evdevKeyFrame(KEY_F12, 2));
    auto keys = log.waitFor(3);
    ASSERT_EQ(keys.size(), 3u);
    EXPECT_EQ(keys[1].keyCode, uint32_t(KEY_F12));
    EXPECT_EQ(keys[1].action, Action::press);
    EXPECT_EQ(keys[1].modifiers, ClipHotkey::controlKey);
    EXPECT_EQ(keys[2].action, Action::repeat);
    EXPECT_EQ(tap.keyboardCount(), 2);

    // Unplugged with F12 held: F12 is released, Ctrl on the other keyboard still counts.
    second.unplug();
    keys = log.waitFor(4);
    ASSERT_EQ(keys.size(), 4u);
    EXPECT_EQ(keys[3].keyCode, uint32_t(KEY_F12));
    EXPECT_EQ(keys[3].action, Action::release);
    EXPECT_EQ(keys[3].modifiers, ClipHotkey::controlKey);

    // The last keyboard going away (its writer closing) releases Ctrl; the tap keeps watching
    // and takes the next keyboard that appears.
    first.disconnect();
    keys = log.waitFor(5);
    ASSERT_EQ(keys.size(), 5u);
    EXPECT_EQ(keys[4].keyCode, uint32_t(KEY_LEFTCTRL));
    EXPECT_EQ(keys[4].action, Action::release);
    EXPECT_EQ(keys[4].modifiers, 0u);
    FakeKeyboard third(path("event2"));
    ASSERT_TRUE(third.connect());
    third.send(evdevKeyFrame(KEY_A, 1));
    keys = log.waitFor(6);
    ASSERT_EQ(keys.size(), 6u);
    EXPECT_EQ(keys[5].keyCode, uint32_t(KEY_A));
    EXPECT_EQ(tap.keyboardCount(), 1) << "the closed FIFO must not be counted";

    const auto before = std::chrono::steady_clock::now();
    tap.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 1s);
    EXPECT_FALSE(tap.isRunning());
    EXPECT_EQ(tap.keyboardCount(), 0);
}

} // namespace

namespace {

// A keyboard made through the kernel's uinput, which the tap must find among the real devices.
class VirtualKeyboard
{
public:
    VirtualKeyboard()
    {
        libevdev *device = libevdev_new();
        libevdev_set_name(device, "Vantrel test keyboard");
        libevdev_enable_event_type(device, EV_KEY);
        for (unsigned code : {KEY_A, KEY_F12, KEY_LEFTCTRL, KEY_ESC, KEY_ENTER, KEY_SPACE})
            libevdev_enable_event_code(device, EV_KEY, code, nullptr);
        m_error =
            libevdev_uinput_create_from_device(device, LIBEVDEV_UINPUT_OPEN_MANAGED, &m_input);
        libevdev_free(device);
    }
    ~VirtualKeyboard()
    {
        if (m_input)
            libevdev_uinput_destroy(m_input);
    }
    bool isValid() const { return m_error == 0 && m_input; }
    void tap(unsigned code)
    {
        for (int value : {1, 0}) {
            libevdev_uinput_write_event(m_input, EV_KEY, code, value);
            libevdev_uinput_write_event(m_input, EV_SYN, SYN_REPORT, 0);
        }
    }

private:
    libevdev_uinput *m_input = nullptr;
    int m_error = -1;
};

} // namespace

// The real kernel path: keyboards made through uinput, one present at the start and one plugged in
// while the tap runs. Needs /dev/uinput (root, the uinput module), as CI machines have.
TEST(EvdevHotkeyTap, ReadsRealKeyboardsIncludingOnePluggedInLater)
{
    const int probe = ::open("/dev/uinput", O_WRONLY | O_CLOEXEC);
    if (probe < 0)
        GTEST_SKIP() << "/dev/uinput cannot be opened here (" << std::strerror(errno)
                     << "); the FIFO tests above cover the reader without the kernel";
    ::close(probe);

    VirtualKeyboard first;
    ASSERT_TRUE(first.isValid());
    std::this_thread::sleep_for(300ms); // udev makes the event node
    KeyLog log;
    EvdevHotkeyTap tap(QStringLiteral("/dev/input"), log.sink());
    ASSERT_TRUE(tap.start());
    first.tap(KEY_F12);
    std::vector<KeyInput> keys = log.waitFor(2);
    ASSERT_GE(keys.size(), 2u);
    EXPECT_EQ(keys[0].keyCode, uint32_t(KEY_F12));
    EXPECT_EQ(keys[0].action, Action::press);
    EXPECT_EQ(keys[1].action, Action::release);

    VirtualKeyboard second;
    ASSERT_TRUE(second.isValid());
    std::this_thread::sleep_for(500ms);
    second.tap(KEY_A);
    keys = log.waitFor(4);
    ASSERT_GE(keys.size(), 4u);
    EXPECT_EQ(keys[2].keyCode, uint32_t(KEY_A));
    tap.stop();
}
