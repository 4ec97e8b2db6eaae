#pragma once

#include "input/KeyInput.h"
#include "xcb/XcbHandles.h"

#include <functional>
#include <memory>
#include <set>

class XcbEventReader;

// The clip key path that watches every X11 client: XInput2 raw key events on the root window,
// through a connection of its own. Raw events reach every client that asks for them, even while
// another client (our own grab included) holds the keyboard, and they change nothing. They carry
// no modifier state, so the connection follows the XKB state instead.
//
// Main thread only; the sink runs on the main thread.
class XInputKeyMonitor
{
public:
    using Sink = std::function<void(const KeyInput &key)>;

    // `onLost` runs when the X server connection breaks; it must not destroy this object at once.
    XInputKeyMonitor(Sink sink, std::function<void()> onLost);
    ~XInputKeyMonitor();
    XInputKeyMonitor(const XInputKeyMonitor &) = delete;
    XInputKeyMonitor &operator=(const XInputKeyMonitor &) = delete;

    // False without a display, without XInput 2.1 or XKB, or when a request is refused.
    bool install();
    void remove();
    bool isInstalled() const;

private:
    void handle(const xcb_generic_event_t &event);

    const Sink m_sink;
    const std::function<void()> m_onLost;
    Xcb::Connection m_connection;
    std::unique_ptr<XcbEventReader> m_reader;
    uint8_t m_xinputOpcode = 0;
    uint8_t m_xkbFirstEvent = 0;
    uint8_t m_modifiers = 0; // X mask, from XKB state notifications
    std::set<uint32_t> m_down; // X key codes
};
