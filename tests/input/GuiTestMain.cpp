#include <QGuiApplication>

#include <gtest/gtest.h>

// The hotkey tests need an application object (the window filter, queued calls to the main
// thread). Qt draws nothing here: its offscreen platform keeps Qt's own X connection out of the
// way, and the X paths under test open theirs.
int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication application(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
