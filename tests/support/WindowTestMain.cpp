// main() for the window tests: the real X server of the fixture when there is one (window
// placement, activation), the offscreen platform otherwise.
#include <QApplication>

#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char **argv)
{
    setenv("QT_QPA_PLATFORM", getenv("DISPLAY") && *getenv("DISPLAY") ? "xcb" : "offscreen", 0);
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
