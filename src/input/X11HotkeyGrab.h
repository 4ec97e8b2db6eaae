#pragma once

#include "input/KeyInput.h"
#include "xcb/XcbHandles.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <vector>

class XcbEventReader;

// The clip key path that needs no permission: a passive grab of the key on the X root window,
// through a connection of its own. The server then sends the clip key to this connection alone,
// whichever window has the focus; other keys are untouched. The grab covers the binding's exact
// modifiers, with and without NumLock and CapsLock. Several keys can be grabbed at once (the clip
// key and the keys of each length).
//
// Main thread only. The sink runs on the main thread for the grabbed keys' presses, repeats and
// releases (and for any key the server sends while a grab is active).
class X11HotkeyGrab
{
public:
    using Sink = std::function<void(const KeyInput &key)>;

    // `onLost` runs when the X server connection breaks; it must not destroy this object at once.
    X11HotkeyGrab(Sink sink, std::function<void()> onLost);
    ~X11HotkeyGrab();
    X11HotkeyGrab(const X11HotkeyGrab &) = delete;
    X11HotkeyGrab &operator=(const X11HotkeyGrab &) = delete;

    // Opens the connection and its event reader. 0 on success (or when already connected), else
    // the XCB connection error (-1 without a display).
    int connect();
    bool isConnected() const;
    void disconnect();

    // Grabs the key (evdev code) with the modifiers (ClipHotkey encoding), replacing any earlier
    // grab of this object. Returns 0, or the X error of the refused grab (10, BadAccess, when
    // another client holds the key; 2, BadValue, for a code X cannot name); nothing stays grabbed
    // after a refusal.
    int grab(uint32_t keyCode, uint32_t modifiers);
    // Grabs one more key, keeping the others; the same status as grab(). A key already grabbed
    // is 0 at once.
    int add(uint32_t keyCode, uint32_t modifiers);
    // Lets go of every key.
    void ungrab();
    bool isGrabbed() const { return !m_grabs.empty(); }
    bool isGrabbed(uint32_t keyCode, uint32_t modifiers) const;

private:
    struct Grab
    {
        uint8_t xKeyCode = 0;
        uint16_t mask = 0; // X modifiers
        friend bool operator==(const Grab &, const Grab &) = default;
    };

    void handle(const xcb_generic_event_t &event);
    void ungrabVariants(uint8_t xKeyCode, uint16_t modifiers);
    static std::optional<Grab> grabOf(uint32_t keyCode, uint32_t modifiers);

    const Sink m_sink;
    const std::function<void()> m_onLost;
    Xcb::Connection m_connection;
    xcb_window_t m_root = 0;
    std::unique_ptr<XcbEventReader> m_reader;
    std::vector<Grab> m_grabs;
    // X key codes seen down on this connection: a second press without a release is the
    // server's auto-repeat (detectable auto-repeat is asked for).
    std::set<uint8_t> m_down;
};
