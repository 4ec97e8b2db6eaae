#include "capture/x11/X11FrameGrabber.h"

#include "capture/x11/CursorOverlay.h"
#include "core/Log.h"

#include <libyuv/convert_from_argb.h>
#include <libyuv/scale_argb.h>
#include <xcb/damage.h>
#include <xcb/randr.h>
#include <xcb/xcb.h>

#include <unistd.h>

#include <stdexcept>

namespace {

// A cursor image is rarely larger than this; before the first one is fetched it stands in for
// the pointer's footprint when deciding whether a move touches our monitor.
constexpr int assumedCursorSize = 64;

void throwIfFailed(xcb_connection_t *connection, xcb_void_cookie_t cookie, const char *what)
{
    Xcb::Error error(xcb_request_check(connection, cookie));
    if (error)
        throw std::runtime_error(std::string(what) + ": " + X11Displays::describe(*error) + ".");
}

} // namespace

X11FrameGrabber::X11FrameGrabber(const std::string &displayName, const CaptureDisplay &display,
                                 int outWidth, int outHeight, bool showsCursor)
    : m_display(display)
    , m_outWidth(outWidth)
    , m_outHeight(outHeight)
    , m_showsCursor(showsCursor)
    , m_x(X11Displays::connect(displayName.empty() ? nullptr : displayName.c_str()))
{
    xcb_connection_t *c = m_x.connection.get();
    const xcb_setup_t *setup = xcb_get_setup(c);

    // Grabs are read as BGRA: 32 bits per pixel, least significant byte first.
    int bitsPerPixel = 0;
    for (auto it = xcb_setup_pixmap_formats_iterator(setup); it.rem; xcb_format_next(&it)) {
        if (it.data->depth == m_x.screen->root_depth)
            bitsPerPixel = it.data->bits_per_pixel;
    }
    if (bitsPerPixel != 32 || m_x.screen->root_depth < 24 ||
        setup->image_byte_order != XCB_IMAGE_ORDER_LSB_FIRST)
        throw std::runtime_error("The X screen's pixel format (depth " +
                                 std::to_string(m_x.screen->root_depth) +
                                 ") cannot be captured; 24-bit colour is needed.");

    const xcb_query_extension_reply_t *shm = xcb_get_extension_data(c, &xcb_shm_id);
    Xcb::Reply<xcb_shm_query_version_reply_t> shmVersion(
        shm && shm->present ? xcb_shm_query_version_reply(c, xcb_shm_query_version(c), nullptr)
                            : nullptr);
    if (!shmVersion || (shmVersion->major_version == 1 && shmVersion->minor_version < 2))
        throw std::runtime_error("The X server does not offer MIT-SHM 1.2, which screen capture "
                                 "needs (a remote display, perhaps).");

    const int monitorRight = m_display.x + m_display.width;
    const int monitorBottom = m_display.y + m_display.height;
    if (m_display.x < 0 || m_display.y < 0 || monitorRight > m_x.screen->width_in_pixels ||
        monitorBottom > m_x.screen->height_in_pixels || m_outWidth <= 0 || m_outHeight <= 0)
        throw std::runtime_error("The display to capture lies outside the X screen.");

    // XFixes is needed by Damage (for the region it clears) and for the cursor image.
    const xcb_query_extension_reply_t *xfixes = xcb_get_extension_data(c, &xcb_xfixes_id);
    if (xfixes && xfixes->present) {
        Xcb::Reply<xcb_xfixes_query_version_reply_t> version(
            xcb_xfixes_query_version_reply(c, xcb_xfixes_query_version(c, 4, 0), nullptr));
        m_hasXfixes = version && version->major_version >= 2;
        m_xfixesEventBase = xfixes->first_event;
    }
    if (m_hasXfixes && m_showsCursor)
        xcb_xfixes_select_cursor_input(c, m_x.screen->root,
                                       XCB_XFIXES_CURSOR_NOTIFY_MASK_DISPLAY_CURSOR);

    const xcb_query_extension_reply_t *damage = xcb_get_extension_data(c, &xcb_damage_id);
    if (m_hasXfixes && damage && damage->present) {
        Xcb::Reply<xcb_damage_query_version_reply_t> version(
            xcb_damage_query_version_reply(c, xcb_damage_query_version(c, 1, 1), nullptr));
        if (version) {
            m_damageEventBase = damage->first_event;
            m_damage = xcb_generate_id(c);
            // Delta rectangles: one event per newly damaged area, so damage on another
            // monitor can be told apart from damage on ours.
            throwIfFailed(c,
                          xcb_damage_create_checked(c, m_damage, m_x.screen->root,
                                                    XCB_DAMAGE_REPORT_LEVEL_DELTA_RECTANGLES),
                          "Could not watch the screen for changes");
        }
    }
    if (!m_damage)
        Log::system(QStringLiteral("X server has no Damage extension; every frame is grabbed"));

    const xcb_query_extension_reply_t *randr = xcb_get_extension_data(c, &xcb_randr_id);
    if (randr && randr->present) {
        m_hasRandr = true;
        m_randrEventBase = randr->first_event;
        xcb_randr_select_input(c, m_x.screen->root,
                               XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE |
                                   XCB_RANDR_NOTIFY_MASK_CRTC_CHANGE |
                                   XCB_RANDR_NOTIFY_MASK_OUTPUT_CHANGE);
    }

    m_image = std::make_unique<PixelBufferPool::Buffer>(0, m_display.width, m_display.height,
                                                        PixelBufferPool::Format::bgra);
    m_imageSegment = xcb_generate_id(c);
    // The request takes the descriptor it is given and closes it once sent.
    throwIfFailed(c, xcb_shm_attach_fd_checked(c, m_imageSegment, dup(m_image->fd()), 0),
                  "Could not share memory with the X server");
    if (m_outWidth != m_display.width || m_outHeight != m_display.height)
        m_scaled.resize(size_t(m_outWidth) * size_t(m_outHeight) * 4);
    xcb_flush(c);
}

std::optional<std::string> X11FrameGrabber::poll()
{
    xcb_connection_t *c = m_x.connection.get();
    readEvents();
    if (xcb_connection_has_error(c))
        return "The connection to the X server was lost.";

    if (m_monitorsChanged) {
        m_monitorsChanged = false;
        if (auto ended = recheckMonitor())
            return ended;
    }

    if (m_showsCursor) {
        m_pointer = X11Displays::pointer(c, m_x.screen);
        if (xcb_connection_has_error(c))
            return "The connection to the X server was lost.";
        if (m_pointer != m_pointerAtGrab &&
            ((m_pointer && cursorTouchesMonitor(*m_pointer)) ||
             (m_pointerAtGrab && cursorTouchesMonitor(*m_pointerAtGrab))))
            m_cursorMoved = true;
    }
    return std::nullopt;
}

bool X11FrameGrabber::readQueuedEvents()
{
    bool any = false;
    while (Xcb::Event event {xcb_poll_for_queued_event(m_x.connection.get())}) {
        readEvent(*event);
        any = true;
    }
    return any;
}

void X11FrameGrabber::readEvents()
{
    while (Xcb::Event event {xcb_poll_for_event(m_x.connection.get())})
        readEvent(*event);
}

int X11FrameGrabber::connectionSocket() const
{
    return xcb_get_file_descriptor(m_x.connection.get());
}

void X11FrameGrabber::readEvent(const xcb_generic_event_t &event)
{
    const uint8_t type = event.response_type & 0x7f;
    if (type == 0) {
        const auto &error = reinterpret_cast<const xcb_generic_error_t &>(event);
        Log::system(QString::fromStdString("x11 capture: " + X11Displays::describe(error)));
        return;
    }
    if (m_damage && type == m_damageEventBase + XCB_DAMAGE_NOTIFY) {
        const auto &notify = reinterpret_cast<const xcb_damage_notify_event_t &>(event);
        const xcb_rectangle_t &area = notify.area;
        if (area.x < m_display.x + m_display.width && area.x + area.width > m_display.x &&
            area.y < m_display.y + m_display.height && area.y + area.height > m_display.y)
            m_damaged = true;
        return;
    }
    if (m_hasXfixes && type == m_xfixesEventBase + XCB_XFIXES_CURSOR_NOTIFY) {
        m_cursorShapeChanged = true;
        return;
    }
    if (m_hasRandr &&
        (type == m_randrEventBase + XCB_RANDR_SCREEN_CHANGE_NOTIFY ||
         type == m_randrEventBase + XCB_RANDR_NOTIFY))
        m_monitorsChanged = true;
}

std::optional<std::string> X11FrameGrabber::recheckMonitor()
{
    const std::vector<CaptureDisplay> displays =
        X11Displays::monitors(m_x.connection.get(), m_x.screen);
    if (displays.empty())
        return "The connection to the X server was lost.";
    for (const CaptureDisplay &display : displays) {
        if (display.displayID != m_display.displayID)
            continue;
        if (display.width != m_display.width || display.height != m_display.height)
            return "The captured display changed its size to " + std::to_string(display.width) +
                "x" + std::to_string(display.height) + ".";
        if (display.x != m_display.x || display.y != m_display.y) {
            m_display.x = display.x;
            m_display.y = display.y;
            m_damaged = true;
        }
        return std::nullopt;
    }
    return "The captured display was disconnected.";
}

bool X11FrameGrabber::cursorTouchesMonitor(std::pair<int, int> pointer) const
{
    int left = pointer.first - assumedCursorSize / 2;
    int top = pointer.second - assumedCursorSize / 2;
    int width = assumedCursorSize;
    int height = assumedCursorSize;
    if (m_cursor) {
        left = pointer.first - m_cursor->xhot;
        top = pointer.second - m_cursor->yhot;
        width = m_cursor->width;
        height = m_cursor->height;
    }
    return left < m_display.x + m_display.width && left + width > m_display.x &&
        top < m_display.y + m_display.height && top + height > m_display.y;
}

bool X11FrameGrabber::hasChanges() const
{
    if (!m_damage || m_firstGrab || m_damaged || m_cursorMoved)
        return true;
    return m_showsCursor && m_cursorShapeChanged && m_pointer && cursorTouchesMonitor(*m_pointer);
}

bool X11FrameGrabber::grab(const PixelBufferPool::Buffer &out)
{
    xcb_connection_t *c = m_x.connection.get();
    if (out.format() != PixelBufferPool::Format::i420 || out.width() != m_outWidth ||
        out.height() != m_outHeight)
        return false;

    // Clear the damage before the image is taken: whatever is drawn after the clear is reported
    // again, so nothing slips between this grab and the next.
    if (m_damage)
        xcb_damage_subtract(c, m_damage, XCB_NONE, XCB_NONE);
    xcb_generic_error_t *rawError = nullptr;
    Xcb::Reply<xcb_shm_get_image_reply_t> image(xcb_shm_get_image_reply(
        c,
        xcb_shm_get_image(c, m_x.screen->root, int16_t(m_display.x), int16_t(m_display.y),
                          uint16_t(m_display.width), uint16_t(m_display.height), ~0u,
                          XCB_IMAGE_FORMAT_Z_PIXMAP, m_imageSegment, 0),
        &rawError));
    Xcb::Error error(rawError);
    if (!image) {
        if (error) {
            Log::system(QString::fromStdString("x11 capture: grab failed: " +
                                               X11Displays::describe(*error)));
            // A monitor that moved off the screen gives BadMatch: look at the list again.
            m_monitorsChanged = true;
        }
        return false;
    }
    m_firstGrab = false;
    m_damaged = false;
    m_cursorMoved = false;
    m_pointerAtGrab = m_pointer;

    const PixelBufferPool::Buffer &grabbed = *m_image;
    if (m_showsCursor && m_hasXfixes)
        drawCursor(grabbed);
    const uint8_t *bgra = grabbed.data();
    int stride = grabbed.stride();
    if (!m_scaled.empty()) {
        libyuv::ARGBScale(bgra, stride, grabbed.width(), grabbed.height(), m_scaled.data(),
                          m_outWidth * 4, m_outWidth, m_outHeight, libyuv::kFilterBox);
        bgra = m_scaled.data();
        stride = m_outWidth * 4;
    }
    // libyuv names formats by their order in a 32-bit word: its "ARGB" is B, G, R, A in memory.
    // BT.601 limited range, the matrix the encoder is told about.
    return libyuv::ARGBToI420(bgra, stride, out.data(), out.stride(), out.chroma(1),
                              out.chromaStride(), out.chroma(2), out.chromaStride(), m_outWidth,
                              m_outHeight) == 0;
}

void X11FrameGrabber::drawCursor(const PixelBufferPool::Buffer &target)
{
    xcb_connection_t *c = m_x.connection.get();
    if (m_cursorShapeChanged || !m_cursor) {
        Xcb::Reply<xcb_xfixes_get_cursor_image_reply_t> reply(
            xcb_xfixes_get_cursor_image_reply(c, xcb_xfixes_get_cursor_image(c), nullptr));
        if (reply) {
            m_cursor = std::move(reply);
            m_cursorShapeChanged = false;
        }
    }
    if (!m_cursor || !m_pointer)
        return;
    const uint32_t *pixels = xcb_xfixes_get_cursor_image_cursor_image(m_cursor.get());
    if (xcb_xfixes_get_cursor_image_cursor_image_length(m_cursor.get()) <
        int(m_cursor->width) * int(m_cursor->height))
        return;
    CursorOverlay::blend(target.data(), target.stride(), target.width(), target.height(), pixels,
                         m_cursor->width, m_cursor->height,
                         m_pointer->first - m_cursor->xhot - m_display.x,
                         m_pointer->second - m_cursor->yhot - m_display.y);
}
