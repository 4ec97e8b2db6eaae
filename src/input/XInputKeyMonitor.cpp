#include "input/XInputKeyMonitor.h"

#include "input/ClipHotkey.h"
#include "input/XcbEventReader.h"

#include <xcb/xinput.h>
// xkb.h names a field "explicit"; C++ needs it renamed while the header is read.
#define explicit xcb_explicit
#include <xcb/xkb.h>
#undef explicit

namespace {

constexpr uint32_t kXKeyCodeOffset = 8;

} // namespace

XInputKeyMonitor::XInputKeyMonitor(Sink sink, std::function<void()> onLost)
    : m_sink(std::move(sink))
    , m_onLost(std::move(onLost))
{
}

XInputKeyMonitor::~XInputKeyMonitor()
{
    remove();
}

bool XInputKeyMonitor::isInstalled() const
{
    return m_connection && m_reader && !m_reader->isLost();
}

bool XInputKeyMonitor::install()
{
    if (isInstalled())
        return true;
    remove();
    xcb_screen_t *screen = nullptr;
    Xcb::Connection connection = Xcb::connect(&screen);
    if (!connection)
        return false;
    xcb_connection_t *c = connection.get();

    const xcb_query_extension_reply_t *xinput = xcb_get_extension_data(c, &xcb_input_id);
    const xcb_query_extension_reply_t *xkb = xcb_get_extension_data(c, &xcb_xkb_id);
    if (!xinput || !xinput->present || !xkb || !xkb->present)
        return false;
    // Raw events while another client holds a grab need 2.1.
    Xcb::Reply<xcb_input_xi_query_version_reply_t> version(
        xcb_input_xi_query_version_reply(c, xcb_input_xi_query_version(c, 2, 2), nullptr));
    if (!version || version->major_version < 2 ||
        (version->major_version == 2 && version->minor_version < 1))
        return false;
    Xcb::Reply<xcb_xkb_use_extension_reply_t> xkbVersion(
        xcb_xkb_use_extension_reply(c, xcb_xkb_use_extension(c, 1, 0), nullptr));
    if (!xkbVersion || !xkbVersion->supported)
        return false;

    const uint16_t stateNotify = XCB_XKB_EVENT_TYPE_STATE_NOTIFY;
    const xcb_void_cookie_t selectState = xcb_xkb_select_events_checked(
        c, XCB_XKB_ID_USE_CORE_KBD, stateNotify, 0, stateNotify, 0, 0, nullptr);
    struct
    {
        xcb_input_event_mask_t head;
        uint32_t bits;
    } mask;
    mask.head.deviceid = XCB_INPUT_DEVICE_ALL_MASTER;
    mask.head.mask_len = 1;
    mask.bits = XCB_INPUT_XI_EVENT_MASK_RAW_KEY_PRESS | XCB_INPUT_XI_EVENT_MASK_RAW_KEY_RELEASE;
    const xcb_void_cookie_t selectRaw =
        xcb_input_xi_select_events_checked(c, screen->root, 1, &mask.head);
    // Asked after both selections, so no state change can fall between the answer and the
    // first notification.
    Xcb::Reply<xcb_xkb_get_state_reply_t> state(
        xcb_xkb_get_state_reply(c, xcb_xkb_get_state(c, XCB_XKB_ID_USE_CORE_KBD), nullptr));
    Xcb::Error stateError(xcb_request_check(c, selectState));
    Xcb::Error rawError(xcb_request_check(c, selectRaw));
    if (stateError || rawError || !state)
        return false;

    m_modifiers = state->mods;
    m_xinputOpcode = xinput->major_opcode;
    m_xkbFirstEvent = xkb->first_event;
    m_down.clear();
    m_connection = std::move(connection);
    m_reader = std::make_unique<XcbEventReader>(
        c, [this](const xcb_generic_event_t &event) { handle(event); },
        [this] {
            m_down.clear();
            if (m_onLost)
                m_onLost();
        });
    m_reader->drainQueued();
    return true;
}

void XInputKeyMonitor::remove()
{
    m_reader.reset();
    m_connection.reset();
    m_down.clear();
}

void XInputKeyMonitor::handle(const xcb_generic_event_t &event)
{
    const uint8_t type = event.response_type & 0x7f;
    if (type == m_xkbFirstEvent) {
        const auto &any = reinterpret_cast<const xcb_xkb_state_notify_event_t &>(event);
        if (any.xkbType == XCB_XKB_STATE_NOTIFY)
            m_modifiers = any.mods;
        return;
    }
    if (type != XCB_GE_GENERIC)
        return;
    const auto &generic = reinterpret_cast<const xcb_ge_generic_event_t &>(event);
    if (generic.extension != m_xinputOpcode ||
        (generic.event_type != XCB_INPUT_RAW_KEY_PRESS &&
         generic.event_type != XCB_INPUT_RAW_KEY_RELEASE))
        return;
    // Press and release share one layout.
    const auto &raw = reinterpret_cast<const xcb_input_raw_key_press_event_t &>(event);
    if (raw.detail < kXKeyCodeOffset)
        return;
    KeyInput input;
    input.keyCode = raw.detail - kXKeyCodeOffset;
    // The state notification of a modifier arrives before the raw event of the next key, so this
    // is the state the key was pressed in.
    input.modifiers = ClipHotkey::modifiersFromX11(m_modifiers);
    if (generic.event_type == XCB_INPUT_RAW_KEY_RELEASE) {
        input.action = KeyInput::Action::release;
        m_down.erase(raw.detail);
    } else {
        const bool repeatFlag = raw.flags & XCB_INPUT_KEY_EVENT_FLAGS_KEY_REPEAT;
        const bool wasDown = !m_down.insert(raw.detail).second;
        input.action = (repeatFlag || wasDown) ? KeyInput::Action::repeat : KeyInput::Action::press;
    }
    m_sink(input);
}
