#include "input/WindowKeyFilter.h"

#include "input/ClipHotkey.h"

#include <QCoreApplication>
#include <QKeyEvent>

WindowKeyFilter::WindowKeyFilter(Handler handler, ShortcutClaim claim)
    : m_handler(std::move(handler))
    , m_claim(std::move(claim))
{
}

bool WindowKeyFilter::install()
{
    if (m_installed)
        return true;
    QCoreApplication *application = QCoreApplication::instance();
    if (!application)
        return false;
    application->installEventFilter(this);
    m_installed = true;
    return true;
}

void WindowKeyFilter::remove()
{
    if (!m_installed)
        return;
    if (QCoreApplication *application = QCoreApplication::instance())
        application->removeEventFilter(this);
    m_installed = false;
}

WindowKeyFilter::Key WindowKeyFilter::keyOf(const QKeyEvent &event)
{
    Key key;
    // X key codes start at 8; a platform without native codes reports 0 and names no key.
    const quint32 scanCode = event.nativeScanCode();
    key.input.keyCode = scanCode >= 8 ? scanCode - 8 : 0;
    key.input.modifiers = ClipHotkey::modifiersFromQt(event.modifiers());
    if (event.type() == QEvent::KeyRelease)
        key.input.action = KeyInput::Action::release;
    else
        key.input.action =
            event.isAutoRepeat() ? KeyInput::Action::repeat : KeyInput::Action::press;
    // Qt's key is the unshifted, layout-aware character for letters (Ctrl+A still says Key_A),
    // where text() would be a control character.
    const int qtKey = event.key();
    if (qtKey > 0 && qtKey < 0x10000 && QChar(char16_t(qtKey)).isPrint())
        key.characters = QString(QChar(char16_t(qtKey)));
    else
        key.characters = event.text();
    return key;
}

bool WindowKeyFilter::eventFilter(QObject *watched, QEvent *event)
{
    switch (event->type()) {
    case QEvent::ShortcutOverride: {
        // Accepting the override turns a shortcut back into a key press for the focus object.
        auto *keyEvent = static_cast<QKeyEvent *>(event);
        if (m_claim(keyOf(*keyEvent))) {
            keyEvent->accept();
            return true;
        }
        return false;
    }
    case QEvent::KeyPress:
    case QEvent::KeyRelease:
        // The window gets the key first, then its widgets; one sighting per key is enough.
        if (!watched->isWindowType())
            return false;
        return m_handler(keyOf(*static_cast<QKeyEvent *>(event)));
    default:
        return false;
    }
}
