#include "app/WindowHome.h"

#include "app/ArmingController.h"
#include "app/DesktopNotifications.h"
#include "app/TrayIcon.h"
#include "core/Preferences.h"
#include "engine/ClipEngine.h"

#include <QCheckBox>
#include <QCloseEvent>
#include <QCoreApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QWidget>

namespace {

const QString wayBack = QStringLiteral(
    "To bring the window back, open Vantrel from your applications or run vantrel vantrel://open "
    "in a terminal.");

} // namespace

const char *const WindowHome::keepRunningKey = "keepRunningWithoutTray";

WindowHome::WindowHome(ArmingController &arming, QObject *parent)
    : QObject(parent)
    , trayAvailable(&TrayIcon::desktopHasTray)
    , m_arming(arming)
    , m_notifications(new DesktopNotifications(this))
{
    // Quitting closes the windows first (Qt 6.5 on): those closes are not the user's.
    if (QCoreApplication::instance())
        QCoreApplication::instance()->installEventFilter(this);
}

QMessageBox *WindowHome::question() const
{
    return m_question;
}

void WindowHome::watch(QWidget *window)
{
    m_window = window;
    window->installEventFilter(this);
}

bool WindowHome::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::Quit && watched == QCoreApplication::instance())
        m_quitting = true;
    if (watched != m_window || event->type() != QEvent::Close || m_closing || m_quitting ||
        trayAvailable())
        return false;
    if (Preferences::open()->value(QString::fromLatin1(keepRunningKey)).toBool()) {
        keepRunning();
        return false;
    }
    event->ignore();
    ask();
    return true;
}

void WindowHome::ask()
{
    if (m_question) {
        m_question->raise();
        return;
    }
    const bool armed = m_arming.state() != ArmingController::State::idle;
    auto *box = new QMessageBox(m_window);
    box->setObjectName(QStringLiteral("keepRunning"));
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setIcon(QMessageBox::Question);
    box->setWindowTitle(QStringLiteral("Vantrel"));
    box->setText(armed ? QStringLiteral("Keep recording in the background?")
                       : QStringLiteral("Keep Vantrel running in the background?"));
    box->setInformativeText(
        QStringLiteral("This desktop shows no tray icon, so nothing on screen will show that "
                       "Vantrel is running. ") +
        wayBack);
    QPushButton *keep =
        box->addButton(armed ? QStringLiteral("Keep Recording") : QStringLiteral("Keep Running"),
                       QMessageBox::AcceptRole);
    QPushButton *quit =
        box->addButton(QStringLiteral("Quit Vantrel"), QMessageBox::DestructiveRole);
    box->addButton(QMessageBox::Cancel);
    box->setDefaultButton(keep);
    auto *dontAsk = new QCheckBox(QStringLiteral("Don't ask again"), box);
    box->setCheckBox(dontAsk);
    connect(box, &QMessageBox::buttonClicked, this, [this, box, keep, quit, dontAsk](auto *button) {
        if (button == keep) {
            if (dontAsk->isChecked())
                Preferences::open()->setValue(QString::fromLatin1(keepRunningKey), true);
            keepRunning();
            if (m_window) {
                m_closing = true;
                m_window->close();
                m_closing = false;
            }
        } else if (button == quit) {
            emit quitRequested();
        }
        box->close();
    });
    m_question = box;
    box->open();
}

void WindowHome::keepRunning()
{
    const bool armed = m_arming.state() != ArmingController::State::idle;
    ClipEngine::log(QStringLiteral("window closed without a tray: Vantrel keeps running"));
    m_notifications->notify(
        armed ? QStringLiteral("Vantrel is still recording")
              : QStringLiteral("Vantrel is still running"),
        (armed ? QStringLiteral("The clip key and vantrel vantrel://clip save the last seconds. ")
               : QString()) +
            wayBack,
        {{QStringLiteral("open"), QStringLiteral("Open Vantrel"),
          [this] { emit windowWanted(); }}});
}
