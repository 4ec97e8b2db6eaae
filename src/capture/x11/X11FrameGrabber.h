#pragma once

#include "capture/ScreenStream.h"
#include "capture/PixelBufferPool.h"
#include "capture/x11/X11Displays.h"

#include <xcb/shm.h>
#include <xcb/xfixes.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// The X side of capturing one monitor: its own connection, MIT-SHM grabs into a shared image,
// the XDamage and XFixes bookkeeping that says whether a new grab is needed at all, the cursor,
// the scaling to the capture size and the conversion to I420. Used from one thread only (the
// stream's capture thread).
class X11FrameGrabber
{
public:
    // Connects and prepares grabs of `display` at `outWidth`×`outHeight`. Throws
    // std::runtime_error with a readable sentence when the display cannot be captured.
    X11FrameGrabber(const std::string &displayName, const CaptureDisplay &display, int outWidth,
                    int outHeight, bool showsCursor);

    // Reads what the server reported since the last call. Returns why the capture must end (the
    // connection died, the monitor went away or changed size), otherwise nothing.
    std::optional<std::string> poll();

    // Looks at the events already read from the connection without reading it further, as poll()
    // would; true when there were any. The connection's socket is quiet only once this is false.
    bool readQueuedEvents();
    // Reads the events waiting on the connection, as poll() would, without asking the server
    // anything.
    void readEvents();
    int connectionSocket() const;

    // Whether anything on the monitor (pixels, pointer position or shape) may have changed since
    // the last grab. Without the Damage extension this is always true.
    bool hasChanges() const;

    // Grabs the monitor into `out` (an I420 buffer of the capture size), cursor drawn in, scaled
    // when the sizes differ. False when the server refused; poll() says why when that ends the
    // capture.
    bool grab(const PixelBufferPool::Buffer &out);

    bool tracksDamage() const { return m_damage != 0; }

private:
    void readEvent(const xcb_generic_event_t &event);
    std::optional<std::string> recheckMonitor();
    bool cursorTouchesMonitor(std::pair<int, int> pointer) const;
    void drawCursor(const PixelBufferPool::Buffer &target);

    CaptureDisplay m_display; // position follows the monitor; size is fixed
    const int m_outWidth;
    const int m_outHeight;
    const bool m_showsCursor;
    X11Displays::Connection m_x;

    uint8_t m_damageEventBase = 0;
    uint8_t m_xfixesEventBase = 0;
    uint8_t m_randrEventBase = 0;
    bool m_hasXfixes = false;
    bool m_hasRandr = false;
    uint32_t m_damage = 0; // 0 without the Damage extension

    // The server writes each grab here, at the monitor's size; the cursor is drawn into it.
    std::unique_ptr<PixelBufferPool::Buffer> m_image;
    xcb_shm_seg_t m_imageSegment = 0;
    // The grab at the capture size, when that differs from the monitor's; empty otherwise.
    std::vector<uint8_t> m_scaled;

    bool m_firstGrab = true;
    bool m_damaged = false;
    bool m_monitorsChanged = false;
    bool m_cursorMoved = false;
    bool m_cursorShapeChanged = true;
    std::optional<std::pair<int, int>> m_pointer; // root coordinates, as of the last poll
    std::optional<std::pair<int, int>> m_pointerAtGrab;
    Xcb::Reply<xcb_xfixes_get_cursor_image_reply_t> m_cursor;
};
