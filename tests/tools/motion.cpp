// vantrel_motion: keeps a window of moving (or still) content on an X display, for capture tests
// and benchmarks. It keeps one wide image in shared memory and, every frame, puts a window-sized
// part of it at a shifting source offset, so every pixel changes every frame while this program
// itself does almost nothing.
//
//   vantrel_motion [--still] [--solid RRGGBB] [--geometry WxH+X+Y] [--fps N] [--duration SECONDS]
//                  [--phase NANOSECONDS]
//
// --phase puts the draws on a grid through that CLOCK_MONOTONIC time (a capture's frame times are
// on the same clock), so a test can draw at a chosen moment of a capture's every tick.
// Prints "ready" on standard output once the first frame is on the screen.

#include <xcb/shm.h>
#include <xcb/xcb.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

namespace {

constexpr int period = 256; // pixels after which the pattern repeats
constexpr int shiftPerFrame = 7; // not a divisor of the period: no pixel keeps its colour

volatile std::sig_atomic_t stopRequested = 0;

struct Options
{
    bool still = false;
    bool solid = false;
    uint32_t solidColour = 0;
    int width = 0, height = 0, x = 0, y = 0;
    int fps = 60;
    double duration = 0; // 0: until killed
    int64_t phase = -1; // -1: draw on a grid from the first frame
};

[[noreturn]] void usage(const char *why)
{
    std::fprintf(stderr,
                 "vantrel_motion: %s\nusage: vantrel_motion [--still] [--solid RRGGBB] "
                 "[--geometry WxH+X+Y] [--fps N] [--duration SECONDS] [--phase NS]\n",
                 why);
    std::exit(2);
}

Options parse(int argc, char **argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const auto value = [&]() -> const char * {
            if (i + 1 >= argc)
                usage(("missing value after " + arg).c_str());
            return argv[++i];
        };
        if (arg == "--still") {
            options.still = true;
        } else if (arg == "--solid") {
            options.solid = true;
            options.solidColour = uint32_t(std::strtoul(value(), nullptr, 16));
        } else if (arg == "--geometry") {
            if (std::sscanf(value(), "%dx%d+%d+%d", &options.width, &options.height, &options.x,
                            &options.y) != 4)
                usage("geometry must be WxH+X+Y");
        } else if (arg == "--fps") {
            options.fps = std::atoi(value());
        } else if (arg == "--duration") {
            options.duration = std::atof(value());
        } else if (arg == "--phase") {
            options.phase = std::atoll(value());
        } else {
            usage(("unknown argument " + arg).c_str());
        }
    }
    if (options.fps <= 0)
        usage("fps must be positive");
    return options;
}

int64_t now()
{
    timespec t {};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return int64_t(t.tv_sec) * 1'000'000'000 + t.tv_nsec;
}

void sleepUntil(int64_t when)
{
    const timespec t {time_t(when / 1'000'000'000), long(when % 1'000'000'000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, nullptr) == EINTR &&
           !stopRequested) { }
}

void sync(xcb_connection_t *c)
{
    std::free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
}

} // namespace

int main(int argc, char **argv)
{
    Options options = parse(argc, argv);
    std::signal(SIGTERM, [](int) { stopRequested = 1; });
    std::signal(SIGINT, [](int) { stopRequested = 1; });

    int screenNumber = 0;
    xcb_connection_t *c = xcb_connect(nullptr, &screenNumber);
    if (xcb_connection_has_error(c)) {
        std::fprintf(stderr, "vantrel_motion: cannot open the display\n");
        return 1;
    }
    xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(c));
    for (int i = 0; i < screenNumber; ++i)
        xcb_screen_next(&screens);
    xcb_screen_t *screen = screens.data;
    if (options.width <= 0 || options.height <= 0) {
        options.width = screen->width_in_pixels;
        options.height = screen->height_in_pixels;
    }

    // Override-redirect: no window manager moves it, and it sits above everything else.
    const xcb_window_t window = xcb_generate_id(c);
    const uint32_t values[] = {options.solid ? options.solidColour : screen->black_pixel, 1,
                               XCB_EVENT_MASK_EXPOSURE};
    xcb_create_window(c, XCB_COPY_FROM_PARENT, window, screen->root, int16_t(options.x),
                      int16_t(options.y), uint16_t(options.width), uint16_t(options.height), 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual,
                      XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
    xcb_map_window(c, window);
    sync(c);

    const int64_t end = options.duration > 0 ? now() + int64_t(options.duration * 1e9) : 0;
    if (options.solid) {
        std::printf("ready\n");
        std::fflush(stdout);
        while (!stopRequested && (!end || now() < end)) {
            std::free(xcb_poll_for_event(c));
            if (xcb_connection_has_error(c))
                return 1;
            usleep(20'000);
        }
        return 0;
    }

    const int imageWidth = options.width + period;
    const size_t bytes = size_t(imageWidth) * size_t(options.height) * 4;
    const int fd = memfd_create("vantrel-motion", MFD_CLOEXEC);
    if (fd < 0 || ftruncate(fd, off_t(bytes)) != 0) {
        std::perror("vantrel_motion: memfd");
        return 1;
    }
    auto *pixels =
        static_cast<uint32_t *>(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    if (pixels == MAP_FAILED) {
        std::perror("vantrel_motion: mmap");
        return 1;
    }
    // Vertical bands that vary along the period, with a slow vertical gradient on top, so rows
    // differ too.
    for (int y = 0; y < options.height; ++y) {
        for (int x = 0; x < imageWidth; ++x) {
            const uint32_t phase = uint32_t(x % period);
            pixels[size_t(y) * size_t(imageWidth) + size_t(x)] = 0xff000000u | (phase << 16) |
                ((255 - phase) << 8) | uint32_t((y * 255) / std::max(1, options.height - 1));
        }
    }
    const xcb_shm_seg_t segment = xcb_generate_id(c);
    xcb_shm_attach_fd(c, segment, fd, 0);
    const xcb_gcontext_t gc = xcb_generate_id(c);
    xcb_create_gc(c, gc, window, 0, nullptr);

    const auto put = [&](int frame) {
        const int sourceX = (frame * shiftPerFrame) % period;
        xcb_shm_put_image(c, window, gc, uint16_t(imageWidth), uint16_t(options.height),
                          uint16_t(sourceX), 0, uint16_t(options.width), uint16_t(options.height),
                          0, 0, screen->root_depth, XCB_IMAGE_FORMAT_Z_PIXMAP, 0, segment, 0);
    };
    put(0);
    sync(c);
    std::printf("ready\n");
    std::fflush(stdout);

    int64_t start = now();
    if (options.phase >= 0) {
        const int64_t period = 1'000'000'000 / options.fps;
        start = options.phase + (start - options.phase + period - 1) / period * period;
    }
    int frame = 0;
    for (int64_t n = 1; !stopRequested && (!end || now() < end); ++n) {
        sleepUntil(start + n * 1'000'000'000 / options.fps);
        bool exposed = false;
        while (xcb_generic_event_t *event = xcb_poll_for_event(c)) {
            exposed |= (event->response_type & 0x7f) == XCB_EXPOSE;
            std::free(event);
        }
        if (xcb_connection_has_error(c))
            return 1;
        if (!options.still)
            ++frame;
        if (!options.still || exposed)
            put(frame);
        // A round trip per frame keeps requests from piling up in a busy server.
        sync(c);
    }
    xcb_disconnect(c);
    return 0;
}
