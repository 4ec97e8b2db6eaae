#include "input/X11HotkeyGrab.h"

#include "input/ClipHotkey.h"
#include "input/XcbEventReader.h"

// xkb.h names a field "explicit"; C++ needs it renamed while the header is read.
#define explicit xcb_explicit
#include <xcb/xkb.h>
#undef explicit

#include <algorithm>
#include <array>

namespace {

constexpr uint32_t kXKeyCodeOffset = 8;

// The variants that make the grab ignore NumLock and CapsLock.
std::array<uint16_t, 4> lockVariants(uint16_t modifiers)
{
    return {modifiers, uint16_t(modifiers | ClipHotkey::x11NumLock),
            uint16_t(modifiers | ClipHotkey::x11Lock),
            uint16_t(modifiers | ClipHotkey::x11NumLock | ClipHotkey::x11Lock)};
}

} // namespace

X11HotkeyGrab::X11HotkeyGrab(Sink sink, std::function<void()> onLost)
    : m_sink(std::move(sink))
    , m_onLost(std::move(onLost))
{
}

X11HotkeyGrab::~X11HotkeyGrab()
{
    disconnect();
}

int X11HotkeyGrab::connect()
{
    if (isConnected())
        return 0;
    disconnect();
    xcb_screen_t *screen = nullptr;
    m_connection = Xcb::connect(&screen);
    if (!m_connection)
        return -1;
    m_root = screen->root;
    // Without detectable auto-repeat a held key arrives as release/press pairs, and every pair
    // would look like a new press.
    Xcb::Reply<xcb_xkb_use_extension_reply_t> xkb(xcb_xkb_use_extension_reply(
        m_connection.get(), xcb_xkb_use_extension(m_connection.get(), 1, 0), nullptr));
    if (xkb && xkb->supported) {
        const uint32_t detectable = XCB_XKB_PER_CLIENT_FLAG_DETECTABLE_AUTO_REPEAT;
        Xcb::Reply<xcb_xkb_per_client_flags_reply_t> flags(xcb_xkb_per_client_flags_reply(
            m_connection.get(),
            xcb_xkb_per_client_flags(m_connection.get(), XCB_XKB_ID_USE_CORE_KBD, detectable,
                                     detectable, 0, 0, 0),
            nullptr));
    }
    m_reader = std::make_unique<XcbEventReader>(
        m_connection.get(), [this](const xcb_generic_event_t &event) { handle(event); },
        [this] {
            m_grabs.clear();
            m_down.clear();
            if (m_onLost)
                m_onLost();
        });
    return 0;
}

bool X11HotkeyGrab::isConnected() const
{
    return m_connection && m_reader && !m_reader->isLost();
}

void X11HotkeyGrab::disconnect()
{
    if (isConnected())
        ungrab();
    m_reader.reset();
    m_connection.reset();
    m_grabs.clear();
    m_down.clear();
}

std::optional<X11HotkeyGrab::Grab> X11HotkeyGrab::grabOf(uint32_t keyCode, uint32_t modifiers)
{
    if (keyCode + kXKeyCodeOffset > 255)
        return std::nullopt;
    return Grab {uint8_t(keyCode + kXKeyCodeOffset), ClipHotkey::x11Modifiers(modifiers)};
}

bool X11HotkeyGrab::isGrabbed(uint32_t keyCode, uint32_t modifiers) const
{
    const auto wanted = grabOf(keyCode, modifiers);
    return wanted && std::find(m_grabs.begin(), m_grabs.end(), *wanted) != m_grabs.end();
}

int X11HotkeyGrab::grab(uint32_t keyCode, uint32_t modifiers)
{
    if (!isConnected())
        return -1;
    ungrab();
    return add(keyCode, modifiers);
}

int X11HotkeyGrab::add(uint32_t keyCode, uint32_t modifiers)
{
    if (!isConnected())
        return -1;
    const auto wanted = grabOf(keyCode, modifiers);
    if (!wanted)
        return XCB_VALUE;
    if (isGrabbed(keyCode, modifiers))
        return 0;
    std::array<xcb_void_cookie_t, 4> cookies;
    const auto variants = lockVariants(wanted->mask);
    for (size_t i = 0; i < variants.size(); ++i)
        cookies[i] =
            xcb_grab_key_checked(m_connection.get(), 0, m_root, variants[i], wanted->xKeyCode,
                                 XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC);
    int status = 0;
    for (const auto &cookie : cookies) {
        Xcb::Error error(xcb_request_check(m_connection.get(), cookie));
        if (error && status == 0)
            status = error->error_code;
    }
    // The reply waits may have queued key events that the socket notifier will not announce.
    m_reader->drainQueued();
    if (status != 0) {
        // Some variants may have succeeded; a half grab would fire with NumLock but not without.
        ungrabVariants(wanted->xKeyCode, wanted->mask);
        xcb_flush(m_connection.get());
        return status;
    }
    m_grabs.push_back(*wanted);
    return 0;
}

void X11HotkeyGrab::ungrab()
{
    if (m_grabs.empty() || !isConnected())
        return;
    for (const Grab &grab : m_grabs)
        ungrabVariants(grab.xKeyCode, grab.mask);
    xcb_flush(m_connection.get());
    m_grabs.clear();
}

void X11HotkeyGrab::ungrabVariants(uint8_t xKeyCode, uint16_t modifiers)
{
    for (uint16_t variant : lockVariants(modifiers))
        xcb_ungrab_key(m_connection.get(), xKeyCode, m_root, variant);
}

void X11HotkeyGrab::handle(const xcb_generic_event_t &event)
{
    const uint8_t type = event.response_type & 0x7f;
    if (type != XCB_KEY_PRESS && type != XCB_KEY_RELEASE)
        return;
    // Press and release events share one layout.
    const auto &key = reinterpret_cast<const xcb_key_press_event_t &>(event);
    if (key.detail < kXKeyCodeOffset)
        return;
    KeyInput input;
    input.keyCode = key.detail - kXKeyCodeOffset;
    input.modifiers = ClipHotkey::modifiersFromX11(key.state);
    if (type == XCB_KEY_RELEASE) {
        input.action = KeyInput::Action::release;
        m_down.erase(key.detail);
    } else {
        input.action =
            m_down.insert(key.detail).second ? KeyInput::Action::press : KeyInput::Action::repeat;
    }
    m_sink(input);
}
