// main() for tests that need a QGuiApplication (clipboard, desktop services, widgets): the
// offscreen platform unless the test asks for a real display.
#include <QApplication>

#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char **argv)
{
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
