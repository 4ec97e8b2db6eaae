#include "input/HotkeyManager.h"

#include "core/ClipSettings.h"
#include "core/DisplaySession.h"
#include "core/LengthKeys.h"
#include "core/Log.h"
#include "input/ClipHotkey.h"
#include "input/InputAccess.h"
#include "input/PermissionNotifier.h"
#include "input/PermissionOnce.h"
#include "input/PermissionTexts.h"
#include "input/PortalShortcut.h"
#include "input/ScreenAccess.h"
#include "input/X11HotkeyGrab.h"
#include "input/XInputKeyMonitor.h"

#include <QStringList>
#include <QTimer>

#include <bit>
#include <linux/input-event-codes.h>

namespace {

using namespace std::chrono_literals;

// A held flag older than this is stale: some path saw the press but lost the release.
constexpr auto kHeldTimeout = 3s;
// Downs closer together than this are one physical press seen on several paths, whatever
// minimum interval is set (a benchmark shortens that one).
constexpr std::chrono::duration<double> kSamePressWindow = 0.2s;
constexpr auto kPermissionPollInterval = 1500ms;

unsigned volumeBit(uint32_t keyCode)
{
    switch (keyCode) {
    case KEY_MUTE:
        return 1;
    case KEY_VOLUMEDOWN:
        return 2;
    case KEY_VOLUMEUP:
        return 4;
    default:
        return 0;
    }
}

// Keys that only change what other keys mean; on Linux they arrive as presses of their own,
// and must not become the clip key on their own in capture mode.
bool isModifierKey(uint32_t keyCode)
{
    switch (keyCode) {
    case KEY_LEFTCTRL:
    case KEY_RIGHTCTRL:
    case KEY_LEFTSHIFT:
    case KEY_RIGHTSHIFT:
    case KEY_LEFTALT:
    case KEY_RIGHTALT:
    case KEY_LEFTMETA:
    case KEY_RIGHTMETA:
    case KEY_CAPSLOCK:
    case KEY_NUMLOCK:
        return true;
    default:
        return false;
    }
}

size_t pathIndex(HotkeyManager::Path path)
{
    return size_t(std::countr_zero(unsigned(path)));
}

} // namespace

HotkeyManager &HotkeyManager::shared()
{
    // Never destroyed: the keyboard reader may still be running while statics are torn down at
    // exit. The application calls unregister() when it quits.
    static HotkeyManager *manager = new HotkeyManager;
    return *manager;
}

HotkeyManager::HotkeyManager()
    : m_keyboardProbe(EvdevHotkeyTap::isKeyboardDevice)
{
    m_pollTimer = new QTimer(this);
    m_pollTimer->setInterval(kPermissionPollInterval);
    connect(m_pollTimer, &QTimer::timeout, this, [this] {
        if (!isArmed()) {
            stopPermissionPoll();
            return;
        }
        installAll();
        refreshGlobalState();
    });
    connect(this, &HotkeyManager::pressAccepted, this, &HotkeyManager::deliver,
            Qt::QueuedConnection);
    connect(&ClipHotkey::notifier(), &ClipHotkeyNotifier::clipHotkeyChanged, this, [this] {
        // A key saves one thing: a length that had the new clip key loses it (which comes back
        // here through its own notice).
        if (const auto length =
                LengthKeys::lengthOf(ClipHotkey::keyCode(), ClipHotkey::modifiers()))
            LengthKeys::clear(*length);
        bindingChanged();
    });
    connect(&LengthKeys::notifier(), &LengthKeysNotifier::lengthKeyChanged, this,
            &HotkeyManager::bindingChanged);
    reloadKeys();
}

size_t HotkeyManager::slotOf(int lengthSeconds)
{
    for (size_t i = 0; i < LengthKeys::lengths.size(); ++i) {
        if (LengthKeys::lengths[i] == lengthSeconds)
            return i + 1;
    }
    return 0;
}

void HotkeyManager::reloadKeys()
{
    auto keys = std::make_shared<BoundKeys>();
    const BoundKey clip {ClipHotkey::keyCode(), ClipHotkey::modifiers(), 0,
                         ClipHotkey::displayName()};
    keys->push_back(clip);
    for (int seconds : LengthKeys::lengths) {
        const auto binding = LengthKeys::binding(seconds);
        if (binding && !(binding->keyCode == clip.keyCode && binding->modifiers == clip.modifiers))
            keys->push_back({binding->keyCode, binding->modifiers, seconds, binding->displayName});
    }
    std::scoped_lock lock(m_keysLock);
    m_keys = std::move(keys);
}

std::shared_ptr<const HotkeyManager::BoundKeys> HotkeyManager::keys() const
{
    std::scoped_lock lock(m_keysLock);
    return m_keys;
}

void HotkeyManager::deliver(int lengthSeconds)
{
    if (onSave)
        onSave(lengthSeconds > 0 ? double(lengthSeconds) : ClipSettings::maxDuration());
    else if (lengthSeconds == 0 && onPress)
        onPress();
}

HotkeyManager::~HotkeyManager()
{
    unregister();
}

void HotkeyManager::registerHotkey()
{
    reloadKeys();
    installGrab();
    if (isEnabled(Path::window)) {
        if (!m_localMonitor)
            m_localMonitor = std::make_unique<WindowKeyFilter>(
                [this](const WindowKeyFilter::Key &key) { return handleWindowKey(key); },
                [this](const WindowKeyFilter::Key &key) { return claimsShortcut(key); });
        m_localMonitor->install();
    }
    installKeyboardReader();
    installRawMonitor();
    installPortalShortcut();
    refreshGlobalState();
}

void HotkeyManager::unregister()
{
    m_isArmed = false;
    stopPermissionPoll();
    m_grab.reset();
    m_globalMonitor.reset();
    m_localMonitor.reset();
    m_portalShortcut.reset();
    // Joins the reader thread: no key from it arrives after this.
    m_tap.reset();
    if (m_worksInOtherApps) {
        m_worksInOtherApps = false;
        emit worksInOtherAppsChanged(false);
    }
    refreshGlobalState();
}

void HotkeyManager::setArmed(bool armed)
{
    m_isArmed = armed;
    if (!armed) {
        stopPermissionPoll();
        std::scoped_lock lock(stateLock);
        keyHeld.fill(false);
        return;
    }
    PermissionOnce::noticeClipKeyIfNeeded();
    reloadKeys();
    installAll();
    startPermissionPoll();
    refreshGlobalState();
}

void HotkeyManager::installAll()
{
    installGrab();
    installKeyboardReader();
    installRawMonitor();
}

void HotkeyManager::logStatus(const QString &what, int status, int *lastLogged)
{
    // Retries run every 1.5 s; the log gets each new outcome once, not every attempt.
    if (status != *lastLogged && status != 0)
        Log::system(QStringLiteral("%1 %2").arg(what).arg(status));
    *lastLogged = status;
}

void HotkeyManager::installGrab()
{
    if (!isEnabled(Path::x11Grab))
        return;
    if (!m_grab)
        m_grab = std::make_unique<X11HotkeyGrab>(
            [this](const KeyInput &key) { handleKey(Path::x11Grab, key); },
            [this] { pathLost(Path::x11Grab); });
    if (!m_grab->isConnected()) {
        const int status = m_grab->connect();
        logStatus(QStringLiteral("hotkey handler"), status, &m_loggedHandlerStatus);
        if (status != 0)
            return;
    }
    // While capturing, our window must see every key, the bound ones included.
    if (isCapturing())
        return;
    // Each key on its own: one that another client holds is retried by the poll, the others
    // work meanwhile.
    for (const BoundKey &key : *keys()) {
        if (m_grab->isGrabbed(key.keyCode, key.modifiers))
            continue;
        const int status = m_grab->add(key.keyCode, key.modifiers);
        logStatus(key.lengthSeconds ? QStringLiteral("hotkey %1s").arg(key.lengthSeconds)
                                    : QStringLiteral("hotkey"),
                  status, &m_loggedGrabStatus[slotOf(key.lengthSeconds)]);
    }
}

void HotkeyManager::installKeyboardReader()
{
    if (!isEnabled(Path::keyboards) || (m_tap && m_tap->isRunning()))
        return;
    if (!InputAccess::keyboardsReadable())
        return;
    auto tap = std::make_unique<EvdevHotkeyTap>(
        InputAccess::inputDirectory(),
        [this](const KeyInput &key) { handleKey(Path::keyboards, key); }, m_keyboardProbe);
    if (tap->start())
        m_tap = std::move(tap);
}

void HotkeyManager::installRawMonitor()
{
    if (!isEnabled(Path::xinputRaw) || (m_globalMonitor && m_globalMonitor->isInstalled()))
        return;
    auto monitor = std::make_unique<XInputKeyMonitor>(
        [this](const KeyInput &key) { handleKey(Path::xinputRaw, key); },
        [this] { pathLost(Path::xinputRaw); });
    if (monitor->install())
        m_globalMonitor = std::move(monitor);
}

void HotkeyManager::installPortalShortcut()
{
    // Under X11 the grab already sees every key; asking the desktop too would only show the user
    // a question for nothing.
    if (!isEnabled(Path::portalShortcut) || m_portalShortcut || !DisplaySession::isWayland())
        return;
    m_portalShortcut = std::make_unique<PortalShortcut>();
    // The desktop's shortcut stands for the key it was bound for, whatever keys it really is.
    const auto keyFor = [this](const QString &id) -> std::optional<BoundKey> {
        for (const BoundKey &key : *keys()) {
            if (id ==
                (key.lengthSeconds ? PortalShortcut::lengthId(key.lengthSeconds)
                                   : PortalShortcut::clipId))
                return key;
        }
        return std::nullopt;
    };
    m_portalShortcut->onPressed = [this, keyFor](const QString &id) {
        if (const auto key = keyFor(id))
            handleKey(Path::portalShortcut,
                      {key->keyCode, KeyInput::Action::press, key->modifiers});
    };
    m_portalShortcut->onReleased = [this, keyFor](const QString &id) {
        if (const auto key = keyFor(id))
            handleKey(Path::portalShortcut,
                      {key->keyCode, KeyInput::Action::release, key->modifiers});
    };
    m_portalShortcut->onStateChanged = [this] { refreshGlobalState(); };
    // Without the interface the object stays, unavailable, so that it is not asked again.
    m_portalShortcut->install(portalShortcuts());
}

QList<PortalShortcut::Shortcut> HotkeyManager::portalShortcuts() const
{
    QList<PortalShortcut::Shortcut> shortcuts;
    for (const BoundKey &key : *keys()) {
        if (key.lengthSeconds == 0)
            shortcuts.append({PortalShortcut::clipId,
                              QStringLiteral("Save a clip of the last seconds"), key.displayName});
        else
            shortcuts.append({PortalShortcut::lengthId(key.lengthSeconds),
                              QStringLiteral("Save the last %1 seconds").arg(key.lengthSeconds),
                              key.displayName});
    }
    return shortcuts;
}

void HotkeyManager::pathLost(Path path)
{
    Log::system(QStringLiteral("hotkey lost the X server"));
    // Called from inside the path's own event reader: drop it once that has returned. The
    // permission poll installs it again when the server is back.
    QMetaObject::invokeMethod(
        this,
        [this, path] {
            if (path == Path::x11Grab)
                m_grab.reset();
            else
                m_globalMonitor.reset();
            m_volumeKeysDown[pathIndex(path)] = 0;
            refreshGlobalState();
        },
        Qt::QueuedConnection);
}

bool HotkeyManager::isPathInstalled(Path path) const
{
    switch (path) {
    case Path::keyboards:
        return m_tap && m_tap->isRunning();
    case Path::x11Grab: {
        // The clip key's grab; one let go for capture mode comes back when capture ends.
        const auto bound = keys();
        const BoundKey &clip = bound->front(); // reloadKeys() always puts the clip key first
        return m_grab && m_grab->isConnected() &&
            (m_grab->isGrabbed(clip.keyCode, clip.modifiers) || isCapturing());
    }
    case Path::xinputRaw:
        return m_globalMonitor && m_globalMonitor->isInstalled();
    case Path::window:
        return m_localMonitor && m_localMonitor->isInstalled();
    case Path::portalShortcut:
        return m_portalShortcut && m_portalShortcut->state() == PortalShortcut::State::bound;
    }
    return false;
}

QString HotkeyManager::installedPathsText() const
{
    QStringList names;
    if (isPathInstalled(Path::keyboards))
        names << QStringLiteral("keyboards");
    if (isPathInstalled(Path::x11Grab))
        names << QStringLiteral("x11 grab");
    if (isPathInstalled(Path::xinputRaw))
        names << QStringLiteral("xinput2 raw");
    if (isPathInstalled(Path::window))
        names << QStringLiteral("window");
    if (isPathInstalled(Path::portalShortcut))
        names << QStringLiteral("portal shortcut");
    return names.isEmpty() ? QStringLiteral("none") : names.join(QStringLiteral(", "));
}

void HotkeyManager::refreshGlobalState()
{
    const QString paths = installedPathsText();
    if (paths != m_loggedPaths) {
        Log::system(QStringLiteral("hotkey paths: %1").arg(paths));
        m_loggedPaths = paths;
    }
    const bool global = isPathInstalled(Path::x11Grab) || isPathInstalled(Path::keyboards) ||
        isPathInstalled(Path::xinputRaw) || isPathInstalled(Path::portalShortcut);
    if (global == m_worksInOtherApps)
        return;
    m_worksInOtherApps = global;
    emit worksInOtherAppsChanged(global);
    if (global)
        QMetaObject::invokeMethod(
            this,
            [this] {
                if (onBecameGlobal)
                    onBecameGlobal();
            },
            Qt::QueuedConnection);
}

QString HotkeyManager::keyNotice() const
{
    if (m_worksInOtherApps)
        return {};
    // The desktop offers a global shortcut, but it is not bound: the user declined it, or it
    // waits in the desktop's settings.
    if (desktopShortcutDeclined())
        return QStringLiteral("Allow Vantrel's shortcut in your desktop's settings.");
    if (desktopLacksShortcuts())
        return PermissionTexts::withoutDesktopShortcuts(
            qEnvironmentVariable("XDG_CURRENT_DESKTOP"));
    if (DisplaySession::isWayland())
        return QStringLiteral("Under Wayland, Vantrel needs to read the keyboard: add yourself to "
                              "the input group, then log in again.");
    return QStringLiteral("Add yourself to the input group to use it everywhere.");
}

bool HotkeyManager::desktopLacksShortcuts() const
{
    return m_portalShortcut && m_portalShortcut->state() == PortalShortcut::State::unavailable;
}

bool HotkeyManager::desktopShortcutDeclined() const
{
    return m_portalShortcut && m_portalShortcut->state() == PortalShortcut::State::refused;
}

void HotkeyManager::startPermissionPoll()
{
    m_pollTimer->start();
}

void HotkeyManager::stopPermissionPoll()
{
    m_pollTimer->stop();
}

void HotkeyManager::retryPaths()
{
    installAll();
    startPermissionPoll();
    refreshGlobalState();
}

void HotkeyManager::bindingChanged()
{
    // A new binding from anywhere (capture mode, settings) is grabbed at once.
    reloadKeys();
    if (m_grab && m_grab->isGrabbed())
        m_grab->ungrab();
    installGrab();
    if (m_portalShortcut && m_portalShortcut->state() != PortalShortcut::State::unavailable)
        m_portalShortcut->install(portalShortcuts());
    refreshGlobalState();
}

void HotkeyManager::handleKey(Path path, const KeyInput &key)
{
    if (const unsigned bit = volumeBit(key.keyCode)) {
        if (key.action == KeyInput::Action::release)
            m_volumeKeysDown[pathIndex(path)] &= ~bit;
        else
            m_volumeKeysDown[pathIndex(path)] |= bit;
        return;
    }
    const auto bound = keys();
    bool ours = false;
    const BoundKey *match = nullptr;
    for (const BoundKey &candidate : *bound) {
        if (candidate.keyCode != key.keyCode)
            continue;
        ours = true;
        if (candidate.modifiers == key.modifiers)
            match = &candidate;
    }
    if (!ours)
        return;
    if (key.action == KeyInput::Action::release) {
        // The modifiers may have been let go first: a release of the code ends every key on it.
        std::scoped_lock lock(stateLock);
        for (const BoundKey &candidate : *bound) {
            if (candidate.keyCode == key.keyCode)
                keyHeld[slotOf(candidate.lengthSeconds)] = false;
        }
        return;
    }
    if (!isArmed() || isCapturing() || !match)
        return;
    noteKeyDown(*match, key.action == KeyInput::Action::repeat);
}

bool HotkeyManager::anyVolumeKeyDown() const
{
    for (const auto &down : m_volumeKeysDown)
        if (down.load())
            return true;
    return false;
}

void HotkeyManager::noteKeyDown(const BoundKey &key, bool isRepeat)
{
    const int lengthSeconds = key.lengthSeconds;
    if (isRepeat || anyVolumeKeyDown())
        return;
    {
        std::scoped_lock lock(stateLock);
        const Clock::time_point now = m_now ? m_now() : Clock::now();
        bool &held = keyHeld[slotOf(lengthSeconds)];
        const auto interval = std::max(m_minInterval, kSamePressWindow);
        if (captureEnd && key.keyCode == captureKeyCode && now - *captureEnd < interval) {
            held = true;
            return;
        }
        // A key held since a fire, or since it ended a capture, fires no more until released.
        const auto recent = [&](const std::optional<Clock::time_point> &when) {
            return when && now - *when < kHeldTimeout;
        };
        if (held && (recent(lastFire) || recent(captureEnd)))
            return;
        held = true;
        if (lastFire && now - *lastFire < interval)
            return;
        lastFire = now;
    }
    emit pressAccepted(lengthSeconds);
}

bool HotkeyManager::claimsShortcut(const WindowKeyFilter::Key &key) const
{
    const uint32_t code = key.input.keyCode;
    return isCapturing() && code != 0 && !volumeBit(code) && !isModifierKey(code) &&
        !(code == KEY_Q && (key.input.modifiers & ClipHotkey::controlKey));
}

bool HotkeyManager::handleWindowKey(const WindowKeyFilter::Key &key)
{
    const uint32_t code = key.input.keyCode;
    if (isCapturing() && key.input.action == KeyInput::Action::press) {
        if (code == KEY_ESC) {
            finishCapture(false, LengthCapture::cancelled, 0);
            return true;
        }
        // Volume keys, Ctrl+Q (quit keeps working) and modifiers pressed on the way to a
        // combination pass through; capture goes on.
        if (!claimsShortcut(key))
            return false;
        saveCapturedKey(key);
        return true;
    }
    handleKey(Path::window, key.input);
    return false;
}

void HotkeyManager::saveCapturedKey(const WindowKeyFilter::Key &key)
{
    const uint32_t code = key.input.keyCode;
    const uint32_t modifiers = key.input.modifiers;
    const QString display = ClipHotkey::displayName(code, modifiers, key.characters);
    const int length = m_captureLength;
    if (length == 0) {
        ClipHotkey::save(code, modifiers, display);
        finishCapture(true, LengthCapture::saved, code);
        return;
    }
    if (code == ClipHotkey::keyCode() && modifiers == ClipHotkey::modifiers()) {
        finishCapture(false, LengthCapture::clipKey, code);
        return;
    }
    LengthKeys::save(length, {code, modifiers, display});
    finishCapture(true, LengthCapture::saved, code);
}

void HotkeyManager::beginCapture(std::function<void(bool saved)> handler)
{
    m_isCapturing = true;
    m_captureLength = 0;
    m_captureHandler = std::move(handler);
    m_lengthCaptureHandler = nullptr;
    if (m_grab)
        m_grab->ungrab();
}

void HotkeyManager::beginLengthCapture(int seconds, std::function<void(LengthCapture)> handler)
{
    if (!LengthKeys::isLength(seconds))
        return;
    m_isCapturing = true;
    m_captureLength = seconds;
    m_captureHandler = nullptr;
    m_lengthCaptureHandler = std::move(handler);
    if (m_grab)
        m_grab->ungrab();
}

void HotkeyManager::cancelCapture()
{
    m_isCapturing = false;
    m_captureLength = 0;
    m_captureHandler = nullptr;
    m_lengthCaptureHandler = nullptr;
    installGrab();
}

void HotkeyManager::finishCapture(bool saved, LengthCapture outcome, uint32_t endingKey)
{
    if (endingKey != 0) {
        // Our window may see the press that ends a capture before the X paths and the keyboards
        // deliver their copies of it, which then find the key bound and capture over. That key
        // stays quiet for the debounce's interval, which drops copies of any press, and until
        // it is released. Noted before capture mode ends, so that a path that sees capture over
        // sees this too.
        // The binding saved is loaded into `m_keys` already (its notice arrives directly).
        const auto bound = keys();
        std::scoped_lock lock(stateLock);
        captureEnd = m_now ? m_now() : Clock::now();
        captureKeyCode = endingKey;
        for (const BoundKey &key : *bound) {
            if (key.keyCode == endingKey)
                keyHeld[slotOf(key.lengthSeconds)] = true;
        }
    }
    m_isCapturing = false;
    m_captureLength = 0;
    std::function<void(bool)> handler = std::exchange(m_captureHandler, nullptr);
    std::function<void(LengthCapture)> lengthHandler =
        std::exchange(m_lengthCaptureHandler, nullptr);
    installGrab();
    refreshGlobalState();
    if (handler)
        QMetaObject::invokeMethod(
            this, [handler, saved] { handler(saved); }, Qt::QueuedConnection);
    if (lengthHandler)
        QMetaObject::invokeMethod(
            this, [lengthHandler, outcome] { lengthHandler(outcome); }, Qt::QueuedConnection);
}

void HotkeyManager::setClockForTesting(std::function<Clock::time_point()> now)
{
    std::scoped_lock lock(stateLock);
    m_now = std::move(now);
}

void HotkeyManager::setMinIntervalForTesting(std::chrono::duration<double> interval)
{
    std::scoped_lock lock(stateLock);
    m_minInterval = interval;
}

void HotkeyManager::setKeyboardProbeForTesting(EvdevHotkeyTap::KeyboardProbe probe)
{
    m_keyboardProbe = std::move(probe);
}
