#include <QGuiApplication>

#include <gtest/gtest.h>

// The hotkey tests need an application object (the window filter, queued calls to the main
// thread). Qt draws nothing here: its offscreen platform keeps Qt's own X connection out of the
// way, and the X paths under test open theirs.
// xdotool is started through QProcess, which clones with a shared address space until exec.
// ThreadSanitizer takes that for a fork of a threaded process and would kill the test at the next
// thread it starts (re-arming starts the keyboard reader again). Nothing runs in the child before
// exec, so the warning does not apply.
extern "C" const char *__tsan_default_options()
{
    return "die_after_fork=0";
}

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication application(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
