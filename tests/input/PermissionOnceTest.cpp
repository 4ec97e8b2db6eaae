#include "input/PermissionOnce.h"
#include "core/Preferences.h"
#include "input/PermissionNotifier.h"
#include "input/ScreenAccess.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>

#include <sys/stat.h>
#include <vector>

namespace {

using Kind = PermissionNotice::Kind;

// Runs with the private Xvfb on DISPLAY, so "accessibility" (X with XInput2) is there unless a
// test clears DISPLAY. Keyboard access is a folder of the test's own.
class PermissionOnceTest : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        m_display = qgetenv("DISPLAY");
        ASSERT_FALSE(m_display.isEmpty()) << "needs the xvfb fixture";
        m_inputDir = home() + QStringLiteral("/input");
        ASSERT_TRUE(QDir().mkpath(m_inputDir));
        qputenv("VANTREL_INPUT_DIR", QFile::encodeName(m_inputDir));
        qunsetenv("WAYLAND_DISPLAY");
        qunsetenv("XDG_SESSION_TYPE");
        m_connection =
            QObject::connect(&PermissionNotifier::instance(), &PermissionNotifier::noticePosted,
                             [this](const PermissionNotice &n) { notices.push_back(n); });
    }
    void TearDown() override { QObject::disconnect(m_connection); }

    void setKeyboardReadable(bool readable)
    {
        const QByteArray path = QFile::encodeName(m_inputDir + QStringLiteral("/event3"));
        if (readable)
            ASSERT_EQ(mkfifo(path.constData(), 0600), 0);
        else
            QFile::remove(QString::fromUtf8(path));
    }
    void setXServer(bool present) { qputenv("DISPLAY", present ? m_display : QByteArray()); }
    static bool flag(const char *key) { return Preferences::open()->value(key).toBool(); }

    std::vector<PermissionNotice> notices;

private:
    QByteArray m_display;
    QString m_inputDir;
    QMetaObject::Connection m_connection;
};

TEST_F(PermissionOnceTest, AccessGrantedAtLaunchIsRememberedAndNeverPromptedLater)
{
    setKeyboardReadable(true);
    PermissionOnce::rememberExistingAccess();
    EXPECT_TRUE(flag("noticeShownX11Keys"));
    EXPECT_TRUE(flag("noticeShownKeyboards"));
    EXPECT_TRUE(flag("noticeShownScreenCast"));
    EXPECT_TRUE(PermissionOnce::screenCastNoticeShown());

    // Everything lost later: no first-time notices, and screen recording goes straight to help.
    setKeyboardReadable(false);
    setXServer(false);
    qputenv("WAYLAND_DISPLAY", "wayland-0");
    PermissionOnce::noticeClipKeyIfNeeded();
    EXPECT_TRUE(notices.empty());
    EXPECT_FALSE(ScreenAccess::request());
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].kind, Kind::screenCast);
    EXPECT_FALSE(notices[0].isFirstPrompt);
}

TEST_F(PermissionOnceTest, NothingGrantedPromptsEachOnceInOrderThenOnlyHelps)
{
    setXServer(false);
    qputenv("XDG_SESSION_TYPE", "wayland");
    PermissionOnce::rememberExistingAccess();
    EXPECT_FALSE(PermissionOnce::screenCastNoticeShown());

    PermissionOnce::noticeClipKeyIfNeeded();
    ASSERT_EQ(notices.size(), 2u);
    EXPECT_EQ(notices[0].kind, Kind::x11Keys);
    EXPECT_EQ(notices[1].kind, Kind::keyboards);
    EXPECT_TRUE(notices[0].isFirstPrompt && notices[1].isFirstPrompt);
    // Neither fallback works, and the texts say so rather than promising X11.
    EXPECT_TRUE(notices[1].text.contains(QLatin1String("only while a Vantrel window")));
    EXPECT_TRUE(notices[0].text.contains(QLatin1String("usermod -aG input")));
    PermissionOnce::noticeClipKeyIfNeeded();
    EXPECT_EQ(notices.size(), 2u);
    EXPECT_TRUE(flag("noticeShownX11Keys") && flag("noticeShownKeyboards"));

    EXPECT_FALSE(ScreenAccess::request());
    EXPECT_TRUE(PermissionOnce::screenCastNoticeShown());
    EXPECT_FALSE(ScreenAccess::request());
    ASSERT_EQ(notices.size(), 4u);
    EXPECT_EQ(notices[2].kind, Kind::screenCast);
    EXPECT_TRUE(notices[2].isFirstPrompt);
    EXPECT_EQ(notices[3].kind, Kind::screenCast);
    EXPECT_FALSE(notices[3].isFirstPrompt);

    // Access arriving later makes every request quiet again.
    qunsetenv("XDG_SESSION_TYPE");
    EXPECT_TRUE(ScreenAccess::isGranted());
    EXPECT_FALSE(ScreenAccess::request());
    EXPECT_EQ(notices.size(), 4u);
}

} // namespace
