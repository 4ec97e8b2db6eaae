#include "app/TrayIcon.h"

#include "app/AppModel.h"
#include "app/ArmingController.h"
#include "app/ClipSaver.h"
#include "core/DisplaySession.h"
#include "core/LengthKeys.h"
#include "engine/ClipEngine.h"
#include "input/ClipHotkey.h"

#include <QGuiApplication>
#include <QMenu>
#include <QPainter>
#include <QPainterPath>
#include <QPalette>
#include <QSystemTrayIcon>

namespace {

QPixmap paperclip(int size, const QColor &color)
{
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.scale(size / 32.0, size / 32.0);
    painter.translate(16, 16);
    painter.rotate(40);
    painter.translate(-16, -16);
    // One wire bent into three nested loops, as a paper clip is.
    QPainterPath wire;
    wire.moveTo(19, 11);
    wire.lineTo(19, 24);
    wire.arcTo(13, 21, 6, 6, 0, -180);
    wire.lineTo(13, 7);
    wire.arcTo(13, 3, 8, 8, 180, -180);
    wire.lineTo(21, 24);
    wire.arcTo(10, 18, 11, 11, 0, -180);
    wire.lineTo(10, 11);
    QPen pen(color, 2.4, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    painter.setPen(pen);
    painter.drawPath(wire);
    return pixmap;
}

QIcon trayImage(bool armed)
{
    // Red while armed, as a recording light; the idle icon follows the panel's theme.
    const QColor color =
        armed ? QColor(255, 59, 48) : QGuiApplication::palette().color(QPalette::WindowText);
    QIcon icon;
    for (int size : {16, 22, 24, 32, 48, 64})
        icon.addPixmap(paperclip(size, color));
    return icon;
}

} // namespace

TrayIcon::TrayIcon(ArmingController &arming, ClipSaver &saver, AppModel &model, QObject *parent)
    : QObject(parent)
    , m_arming(arming)
    , m_model(model)
    , m_icon(new QSystemTrayIcon(this))
    , m_menu(new QMenu)
{
    m_icon->setToolTip(QStringLiteral("Vantrel"));
    m_menu->setObjectName(QStringLiteral("trayMenu"));
    m_menu->addAction(QStringLiteral("Open Vantrel"), this, &TrayIcon::openWindowRequested);
    m_menu->addSeparator();
    m_save = m_menu->addAction(QString(), &saver, &ClipSaver::save);
    // Every length, whatever the clip length chosen: the replay keeps at least the clip length,
    // and a longer one saves what it holds and says so.
    for (int seconds : LengthKeys::lengths)
        m_lengths.append(m_menu->addAction(QStringLiteral("Save last %1s").arg(seconds), &saver,
                                           [&saver, seconds] { saver.saveLength(seconds); }));
    m_arm = m_menu->addAction(QStringLiteral("Arm Recording"), &arming, &ArmingController::start);
    m_stop = m_menu->addAction(QStringLiteral("Stop Recording"), &arming, &ArmingController::stop);
    m_menu->addSeparator();
    m_menu->addAction(QStringLiteral("Open Recordings"), QKeySequence(QStringLiteral("Ctrl+O")),
                      this, &TrayIcon::openRecordingsRequested);
    m_menu->addSeparator();
    m_menu->addAction(QStringLiteral("Quit Vantrel"), QKeySequence(QStringLiteral("Ctrl+Q")), this,
                      &TrayIcon::quitRequested);
    m_icon->setContextMenu(m_menu);
    connect(m_icon, &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger)
                    emit openWindowRequested();
            });
    connect(&m_arming, &ArmingController::stateChanged, this, &TrayIcon::refresh);
    connect(&m_model, &AppModel::hotkeyNameChanged, this, &TrayIcon::refresh);
    refresh();
}

TrayIcon::~TrayIcon()
{
    // The menu has no parent: a tray menu is a window of its own.
    delete m_menu;
}

bool TrayIcon::desktopHasTray()
{
    return !DisplaySession::isWayland() || QSystemTrayIcon::isSystemTrayAvailable();
}

void TrayIcon::show()
{
    if (desktopHasTray())
        m_icon->show();
    else
        ClipEngine::log(QStringLiteral("no system tray on this desktop (%1): running without a "
                                       "tray icon")
                            .arg(QGuiApplication::platformName()));
}

void TrayIcon::refresh()
{
    // Armed as the engine sees it: from the arming's answer until the stop has run.
    const ArmingController::State state = m_arming.state();
    const bool armed =
        state == ArmingController::State::armed || state == ArmingController::State::stopping;
    m_icon->setIcon(trayImage(armed));
    m_save->setText(QStringLiteral("Save Clip  ") + ClipHotkey::displayName());
    m_save->setVisible(armed);
    for (QAction *length : std::as_const(m_lengths))
        length->setVisible(armed);
    m_stop->setVisible(armed);
    m_arm->setVisible(!armed);
    m_arm->setEnabled(state != ArmingController::State::arming);
}
