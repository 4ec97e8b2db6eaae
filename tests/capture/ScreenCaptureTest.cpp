#include "capture/ScreenStream.h"
#include "capture/x11/CursorOverlay.h"
#include "capture/PixelBufferPool.h"

#include <gtest/gtest.h>

#include <cstring>

TEST(ScreenCapture, ChoosesTheDisplayUnderThePointerThenThePrimaryThenTheFirst)
{
    const CaptureDisplay left {11, 0, 0, 1920, 1080, false};
    const CaptureDisplay right {12, 1920, 0, 2560, 1440, true};
    const CaptureDisplay below {13, 0, 1080, 1280, 720, false};
    const std::vector<CaptureDisplay> all {left, right, below};

    EXPECT_EQ(chooseCaptureDisplay(all, std::pair {100, 100})->displayID, 11u);
    EXPECT_EQ(chooseCaptureDisplay(all, std::pair {1920, 0})->displayID, 12u); // edges belong right
    EXPECT_EQ(chooseCaptureDisplay(all, std::pair {1919, 1079})->displayID, 11u);
    EXPECT_EQ(chooseCaptureDisplay(all, std::pair {5, 1085})->displayID, 13u);
    // Outside every display, or no pointer: the primary.
    EXPECT_EQ(chooseCaptureDisplay(all, std::pair {1300, 1500})->displayID, 12u);
    EXPECT_EQ(chooseCaptureDisplay(all, std::nullopt)->displayID, 12u);
    // No primary: the first listed.
    EXPECT_EQ(chooseCaptureDisplay({below, left}, std::pair {-5, -5})->displayID, 13u);
    EXPECT_FALSE(chooseCaptureDisplay({}, std::pair {0, 0}));
}

TEST(ScreenCapture, CreateNamesWhatIsMissing)
{
    const auto message = [] {
        try {
            ScreenCaptureService::create();
        } catch (const std::runtime_error &error) {
            return std::string(error.what());
        }
        return std::string("created");
    };
    unsetenv("WAYLAND_DISPLAY");
    unsetenv("XDG_SESSION_TYPE");
    setenv("VANTREL_CAPTURE", "pipewire", 1);
    EXPECT_NE(message().find("VANTREL_CAPTURE=pipewire"), std::string::npos);

    setenv("VANTREL_CAPTURE", "x11", 1);
    unsetenv("DISPLAY");
    EXPECT_EQ(message(), "No X display to capture: DISPLAY is not set.");
    setenv("DISPLAY", ":999", 1);
    EXPECT_EQ(message(), "Could not open the X display \":999\": no X server answers there.");

    // A Wayland session without the portal: DISPLAY is XWayland, which would record black.
    unsetenv("VANTREL_CAPTURE");
    setenv("XDG_SESSION_TYPE", "wayland", 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    EXPECT_NE(message().find("Wayland session has no screen-sharing portal"), std::string::npos);
}

// Premultiplied "over", clipped at every edge of the frame.
TEST(ScreenCapture, BlendsThePremultipliedCursorOverTheFrameAndClipsIt)
{
    constexpr int size = 4;
    std::vector<uint32_t> frame(size * size, 0xff404040);
    const uint32_t cursor[] = {
        0xffffffff, 0x80000000, 0x00000000, // opaque white, half-transparent black, nothing
        0x80808080, 0xff0000ff, 0x40102030, // half-transparent white, opaque blue, a tint
    };
    const auto blend = [&](int left, int top) {
        CursorOverlay::blend(reinterpret_cast<uint8_t *>(frame.data()), size * 4, size, size,
                             cursor, 3, 2, left, top);
    };
    blend(0, 0);
    EXPECT_EQ(frame[0], 0xffffffffu);
    EXPECT_EQ(frame[1], 0xff202020u) << std::hex << frame[1]; // 0x40 × 127/255, opaque below
    EXPECT_EQ(frame[2], 0xff404040u);
    EXPECT_EQ(frame[size + 0], 0xffa0a0a0u) << std::hex << frame[size];
    EXPECT_EQ(frame[size + 1], 0xff0000ffu);
    EXPECT_EQ(frame[size + 2], 0xff405060u) << std::hex << frame[size + 2];

    // Hanging off each side: only the part inside is drawn, nothing outside is touched (the
    // sanitizer build would catch a stray write).
    std::fill(frame.begin(), frame.end(), 0xff404040);
    blend(-2, -1); // only the cursor's bottom-right pixel lands, at (0, 0)
    EXPECT_EQ(frame[0], 0xff405060u);
    EXPECT_EQ(std::count(frame.begin(), frame.end(), 0xff404040u), size * size - 1);
    std::fill(frame.begin(), frame.end(), 0xff404040);
    blend(3, 3); // only its top-left pixel lands, at (3, 3)
    EXPECT_EQ(frame[size * size - 1], 0xffffffffu);
    EXPECT_EQ(std::count(frame.begin(), frame.end(), 0xff404040u), size * size - 1);
    blend(-3, 0);
    blend(4, 0);
    blend(0, 4);
    EXPECT_EQ(std::count(frame.begin(), frame.end(), 0xff404040u), size * size - 1);
}

TEST(ScreenCapture, PoolLendsEachBufferOnceAndOutlivesItsFrames)
{
    std::shared_ptr<PixelBufferPool::Buffer> kept;
    {
        PixelBufferPool pool(3, 64, 32);
        auto a = pool.acquire();
        ASSERT_TRUE(a);
        EXPECT_EQ(a->stride(), 256);
        auto b = pool.acquire();
        kept = pool.acquire();
        ASSERT_TRUE(a && b && kept);
        EXPECT_NE(a->data(), b->data());
        EXPECT_FALSE(pool.acquire()) << "a fourth frame in flight";
        EXPECT_EQ(pool.freeCount(), 0);
        const int index = a->index();
        a.reset();
        EXPECT_EQ(pool.freeCount(), 1);
        EXPECT_EQ(pool.acquire()->index(), index);
    }
    // The pool is gone; the frame still holding a buffer can use it.
    std::memset(kept->data(), 0x5a, kept->size());
    EXPECT_EQ(kept->data()[kept->size() - 1], 0x5a);
}
