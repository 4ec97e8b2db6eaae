#pragma once

#include "input/EvdevHotkeyTap.h"
#include "input/KeyInput.h"
#include "input/PortalShortcut.h"
#include "input/WindowKeyFilter.h"

#include <QObject>
#include <QString>

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

class QTimer;
class X11HotkeyGrab;
class XInputKeyMonitor;

// Turns a press of the clip key, or of the key of one length (LengthKeys), into exactly one save
// request (`onSave`), from whatever application the user is in, and binds a new key when the user
// presses one in our window.
//
// One press usually arrives on several paths at once, each a class of its own:
//   - the X11 passive grab of the clip key (no permission needed; takes the key from other
//     clients),
//   - the keyboard reader on the thread "vt-hotkey-tap" (needs read access to /dev/input; works
//     without any display server),
//   - XInput2 raw key events (every X11 client),
//   - the event filter on our own windows (also does capture mode),
//   - in a Wayland session, the desktop's global shortcut through the portal (GlobalShortcuts),
//     where the desktop offers one: a key pressed anywhere without reading the keyboards.
// Every path listens for all the keys. A small debounce under `stateLock`, one for all the keys,
// collapses the copies of a press into one fire, and lets at most one fire through in any 1.5 s.
//
// Threads: every public operation, `onPress`, `onBecameGlobal` and the capture handler run on
// the main thread; the keyboard reader's thread only reads the binding, reads the atomics below
// and takes `stateLock`.
class HotkeyManager : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool worksInOtherApps READ worksInOtherApps NOTIFY worksInOtherAppsChanged)

public:
    using Clock = std::chrono::steady_clock;
    enum class Path : unsigned {
        keyboards = 1,
        x11Grab = 2,
        xinputRaw = 4,
        window = 8,
        portalShortcut = 16
    };
    static constexpr unsigned allPaths = 31;

    // What capturing a key for a length came to.
    enum class LengthCapture {
        saved,
        cancelled, // Esc
        // The key pressed is the clip key, which stays the clip key; the length keeps the key it
        // had.
        clipKey,
    };

    // Created on first use, which must be on the main thread.
    static HotkeyManager &shared();

    // Called on the main thread once per accepted press of any of the keys, with the length to
    // save in seconds: the clip length chosen in the settings (read at the press) for the clip
    // key, the key's own length for a length key.
    std::function<void(double seconds)> onSave;
    // For a shell that saves only the chosen length: when `onSave` is not set, a press of the
    // clip key calls this instead (and the length keys do nothing).
    std::function<void()> onPress;
    // Called on the main thread when `worksInOtherApps` turns true.
    std::function<void()> onBecameGlobal;

    bool isArmed() const { return m_isArmed.load(); }
    // At least one path that sees keys pressed in other applications is installed.
    bool worksInOtherApps() const { return m_worksInOtherApps; }
    bool isCapturing() const { return m_isCapturing.load(); }

    // Installs every path that can be installed now; called once at launch. ("register" itself is
    // a C++ keyword.)
    void registerHotkey();
    // Removes every path; called when the program quits.
    void unregister();
    // Presses count only while armed. Arming also shows the one-time access notices and retries
    // the paths that are missing every 1.5 s while armed. Disarming keeps the paths installed.
    void setArmed(bool armed);

    // The next suitable key pressed in one of our windows becomes the clip key; `handler(saved)`
    // is called once, true for a new binding, false when Esc cancelled. While capturing, the X
    // grab is let go so that the current clip key, too, reaches our window.
    void beginCapture(std::function<void(bool saved)> handler);
    // The same for the key of one length (one of LengthKeys::lengths): the next suitable key
    // pressed in our window becomes that length's key (taking it from any other length that had
    // it); the clip key is refused. `handler` is called once.
    void beginLengthCapture(int seconds, std::function<void(LengthCapture)> handler);
    // The length the running capture is for; 0 for the clip key (or no capture).
    int captureLength() const { return m_captureLength; }
    // Leaves capture mode without calling the handler.
    void cancelCapture();

    // Tries the missing paths again now, and every 1.5 s while armed: the user may just have
    // been given access.
    void retryPaths();

    bool isPathInstalled(Path path) const;
    // The clip key reaches other X11 applications (the X grab or XInput2), whether or not the
    // keyboards can be read.
    bool x11KeysWork() const
    {
        return isPathInstalled(Path::x11Grab) || isPathInstalled(Path::xinputRaw);
    }
    // "keyboards, x11 grab, xinput2 raw, window, portal shortcut", or "none".
    QString installedPathsText() const;
    // What the user can do for the clip key to work in every application; empty when it does.
    QString keyNotice() const;
    // The desktop offers its global shortcut, but the clip key is not bound there (the user
    // declined, or the desktop failed).
    bool desktopShortcutDeclined() const;
    // A Wayland desktop whose portal has no global shortcuts (GNOME before 48, most wlroots
    // desktops): only the keyboards or our window hear the clip key there.
    bool desktopLacksShortcuts() const;

    // For tests and benchmarks: the clock of the debounce, its minimum interval between fires,
    // the paths that may be installed, and how keyboards are recognised.
    void setClockForTesting(std::function<Clock::time_point()> now);
    void setMinIntervalForTesting(std::chrono::duration<double> interval);
    void setEnabledPathsForTesting(unsigned paths) { m_enabledPaths = paths; }
    void setKeyboardProbeForTesting(EvdevHotkeyTap::KeyboardProbe probe);

signals:
    void worksInOtherAppsChanged(bool worksInOtherApps);
    // Emitted on the thread that accepted a press (the keyboard reader's, or the main thread),
    // with the key's length (0 for the clip key); `onSave` is called from its queued connection
    // on the main thread. A queued signal, rather than a posted closure, keeps the hand-over
    // inside Qt, where ThreadSanitizer does not look.
    void pressAccepted(int lengthSeconds);

private:
    // One key the paths listen for.
    struct BoundKey
    {
        uint32_t keyCode = 0;
        uint32_t modifiers = 0;
        int lengthSeconds = 0; // 0: the clip key
        QString displayName;
    };
    using BoundKeys = std::vector<BoundKey>;
    // The clip key and the four lengths' keys each have their held flag.
    static constexpr size_t keySlots = 5;
    static size_t slotOf(int lengthSeconds);

    HotkeyManager();
    ~HotkeyManager() override;

    // Reads the bindings from the settings into `m_keys` (main thread); a length key that is the
    // clip key's is left out (the clip key wins).
    void reloadKeys();
    std::shared_ptr<const BoundKeys> keys() const;
    void deliver(int lengthSeconds);

    bool isEnabled(Path path) const { return m_enabledPaths & unsigned(path); }
    void installGrab();
    void installKeyboardReader();
    void installRawMonitor();
    void installPortalShortcut();
    QList<PortalShortcut::Shortcut> portalShortcuts() const;
    void installAll();
    void refreshGlobalState();
    void startPermissionPoll();
    void stopPermissionPoll();
    void pathLost(Path path);
    void bindingChanged();

    // Any thread: one key event from a path.
    void handleKey(Path path, const KeyInput &key);
    bool handleWindowKey(const WindowKeyFilter::Key &key);
    bool claimsShortcut(const WindowKeyFilter::Key &key) const;
    void saveCapturedKey(const WindowKeyFilter::Key &key);
    void noteKeyDown(const BoundKey &key, bool isRepeat);
    bool anyVolumeKeyDown() const;
    // `endingKey`: the key code of the press that ended the capture, 0 for none (Esc).
    void finishCapture(bool saved, LengthCapture outcome, uint32_t endingKey);
    void logStatus(const QString &what, int status, int *lastLogged);

    std::atomic<bool> m_isArmed = false;
    bool m_worksInOtherApps = false;
    std::atomic<bool> m_isCapturing = false;

    std::unique_ptr<X11HotkeyGrab> m_grab;
    std::unique_ptr<WindowKeyFilter> m_localMonitor;
    std::unique_ptr<XInputKeyMonitor> m_globalMonitor;
    std::unique_ptr<EvdevHotkeyTap> m_tap;
    std::unique_ptr<PortalShortcut> m_portalShortcut;
    QTimer *m_pollTimer = nullptr;

    // stateLock guards keyHeld, lastFire, captureEnd, captureKeyCode, m_now and m_minInterval.
    // One debounce for all the keys: any fire counts for the interval, each key has its own held
    // flag; the key that ended a capture is held back on its own.
    std::mutex stateLock;
    std::array<bool, keySlots> keyHeld {};
    std::optional<Clock::time_point> lastFire; // none: the distant past
    std::optional<Clock::time_point> captureEnd; // when a key last ended a capture
    uint32_t captureKeyCode = 0;
    std::function<Clock::time_point()> m_now;
    std::chrono::duration<double> m_minInterval {1.5};

    std::function<void(bool)> m_captureHandler;
    std::function<void(LengthCapture)> m_lengthCaptureHandler;
    int m_captureLength = 0; // main thread

    // m_keysLock guards m_keys, which the main thread replaces and every path reads.
    mutable std::mutex m_keysLock;
    std::shared_ptr<const BoundKeys> m_keys = std::make_shared<const BoundKeys>();

    // Volume keys down, one bit per key, as each path last saw them (a path that missed a
    // release cannot clear another's).
    std::array<std::atomic<unsigned>, 5> m_volumeKeysDown {};

    unsigned m_enabledPaths = allPaths;
    EvdevHotkeyTap::KeyboardProbe m_keyboardProbe;
    QString m_loggedPaths;
    int m_loggedHandlerStatus = 0;
    std::array<int, keySlots> m_loggedGrabStatus {};
};
