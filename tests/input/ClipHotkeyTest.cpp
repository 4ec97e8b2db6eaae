#include "input/ClipHotkey.h"
#include "core/Preferences.h"

#include "support/TestEnvironment.h"

#include <linux/input-event-codes.h>

using ClipHotkeyTest = TempHomeTest;

TEST_F(ClipHotkeyTest, BindingRoundTripsAndAnnouncesItselfOnlyOnceStored)
{
    EXPECT_EQ(ClipHotkey::keyCode(), 88u);
    EXPECT_EQ(ClipHotkey::modifiers(), 0u);
    EXPECT_EQ(ClipHotkey::displayName(), QStringLiteral("F12"));

    QString seenByObserver;
    QObject::connect(&ClipHotkey::notifier(), &ClipHotkeyNotifier::clipHotkeyChanged,
                     [&](const QString &text) {
                         // Observers read the store: it must already hold the new binding.
                         seenByObserver = ClipHotkey::displayName();
                         EXPECT_EQ(text, seenByObserver);
                         EXPECT_EQ(ClipHotkey::keyCode(), uint32_t(KEY_F9));
                     });
    ClipHotkey::save(KEY_F9, ClipHotkey::controlKey | ClipHotkey::shiftKey,
                     QStringLiteral("Ctrl+Shift+F9"));
    EXPECT_EQ(seenByObserver, QStringLiteral("Ctrl+Shift+F9"));
    EXPECT_EQ(ClipHotkey::modifiers(), 0x1200u);

    // The largest values fit; an empty display text reads as the default.
    ClipHotkey::setKeyCode(0xFFFFFFFFu);
    ClipHotkey::setDisplayName(QString());
    EXPECT_EQ(ClipHotkey::keyCode(), 0xFFFFFFFFu);
    EXPECT_EQ(ClipHotkey::displayName(), QStringLiteral("F12"));
}

TEST_F(ClipHotkeyTest, UnusableStoredNumbersFallBackToTheDefaultBinding)
{
    const auto store = Preferences::open();
    for (const QVariant &bad :
         {QVariant(-1), QVariant(qlonglong(1) << 32), QVariant("F12"), QVariant(QString())}) {
        store->setValue(QStringLiteral("clipHotkeyKeyCode"), bad);
        store->setValue(QStringLiteral("clipHotkeyModifiers"), bad);
        store->sync();
        EXPECT_EQ(ClipHotkey::keyCode(), 88u) << bad.toString().toStdString();
        EXPECT_EQ(ClipHotkey::modifiers(), 0u);
    }
}

TEST_F(ClipHotkeyTest, ModifierEncodingsAndDisplayTexts)
{
    using namespace ClipHotkey;
    const auto all = Qt::ControlModifier | Qt::AltModifier | Qt::ShiftModifier | Qt::MetaModifier;
    EXPECT_EQ(modifiersFromQt(all | Qt::KeypadModifier), 0x1B00u);
    EXPECT_EQ(qtModifiers(0x1B00 | 0x1), all);
    EXPECT_EQ(normalized(Qt::ShiftModifier | Qt::KeypadModifier | Qt::GroupSwitchModifier),
              Qt::ShiftModifier);
    // X11: Caps Lock and NumLock are not part of a binding.
    EXPECT_EQ(modifiersFromX11(x11Control | x11Shift | x11Lock | x11NumLock), 0x1200u);
    EXPECT_EQ(x11Modifiers(0x1B00), uint16_t(x11Control | x11Alt | x11Shift | x11Super));

    EXPECT_EQ(displayName(KEY_F12, shiftKey | controlKey), QStringLiteral("Ctrl+Shift+F12"));
    EXPECT_EQ(displayName(KEY_F1, superKey | altKey), QStringLiteral("Alt+Super+F1"));
    EXPECT_EQ(displayName(KEY_F12, 0), QStringLiteral("F12"));
    EXPECT_EQ(displayName(KEY_A, shiftKey, QStringLiteral("a")), QStringLiteral("Shift+A"));
    EXPECT_EQ(displayName(KEY_A, 0), QStringLiteral("Key 30"));
    EXPECT_EQ(keyTitle(KEY_COMMA, QStringLiteral(",")), QStringLiteral("Key 51"));
    EXPECT_EQ(keyTitle(KEY_2, QStringLiteral("2")), QStringLiteral("2"));
    // Letters follow the layout: the same key types another letter elsewhere.
    EXPECT_EQ(keyTitle(KEY_Q, QStringLiteral("a")), QStringLiteral("A"));
    EXPECT_EQ(keyTitle(KEY_LEFT), QStringLiteral("←"));
    EXPECT_EQ(keyTitle(KEY_BACKSPACE), QStringLiteral("Delete"));
    EXPECT_EQ(keyTitle(KEY_DELETE), QStringLiteral("Fwd Del"));
    EXPECT_EQ(keyTitle(KEY_F20), QStringLiteral("F20"));
}
