#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QString>
#include <QVariantMap>

#include <functional>

// The clip key as a global shortcut of the desktop, through the desktop portal's GlobalShortcuts
// interface: the Wayland way to hear a key pressed in other programs without reading the
// keyboards. install() opens a session and binds one shortcut, "save-clip", with the clip key as
// the preferred trigger; the desktop may ask the user, and decides the trigger in the end. Each
// activation of the shortcut is one press, each deactivation its release.
//
// Asynchronous and on the main thread: nothing here blocks on the desktop, except the short check
// whether the portal offers the interface at all.
class PortalShortcut : public QObject
{
    Q_OBJECT

public:
    enum class State {
        idle,
        // The portal offers no GlobalShortcuts (none, or one without a backend for it).
        unavailable,
        binding,
        bound,
        // The user declined, or the desktop failed: see failure().
        refused,
    };

    explicit PortalShortcut(QObject *parent = nullptr);
    ~PortalShortcut() override; // closes the session

    // Called on the main thread.
    std::function<void()> onPressed;
    std::function<void()> onReleased;
    // The state changed (bound, refused, unavailable).
    std::function<void()> onStateChanged;

    // Binds `trigger` (the binding's display text, "Ctrl+Shift+F12"); again with a new trigger
    // after the binding changed. Returns false, and does nothing, when the portal lacks the
    // interface.
    bool install(const QString &displayText);
    void uninstall();

    State state() const { return m_state; }
    // What the desktop says the trigger is ("Ctrl+Shift+F12", "F12"), once bound.
    QString triggerDescription() const { return m_trigger; }
    QString failure() const { return m_failure; }

    // "Ctrl+Shift+F12" written the way the XDG shortcut format wants a trigger
    // ("CTRL+SHIFT+F12"; Super is "LOGO", a letter key is lower case).
    static QString preferredTrigger(const QString &displayText);

private slots:
    // Activated and Deactivated (o session, s id, t timestamp, a{sv} options).
    void activated(const QDBusMessage &message);
    void deactivated(const QDBusMessage &message);

private:
    void request(const QString &method, QList<QVariant> arguments, QVariantMap options,
                 std::function<void(uint code, const QVariantMap &results)> then);
    void bind();
    void setState(State state, const QString &failure = {});
    void closeSession();
    bool isOurs(const QDBusMessage &message) const;

    QDBusConnection m_bus;
    State m_state = State::idle;
    QString m_session;
    QString m_preferred;
    QString m_trigger;
    QString m_failure;
    int m_generation = 0; // answers for an older install() are dropped
};
