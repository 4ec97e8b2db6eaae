#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QList>
#include <QMap>
#include <QObject>
#include <QString>
#include <QVariantMap>

#include <functional>

// The clip key as a global shortcut of the desktop, through the desktop portal's GlobalShortcuts
// interface: the Wayland way to hear a key pressed in other programs without reading the
// keyboards. install() opens a session and binds the shortcuts, "save-clip" with the clip key as
// the preferred trigger and one more for each length that has a key of its own
// ("save-last-60s"); the desktop may ask the user, and decides the triggers in the end. Each
// activation of a shortcut is one press, each deactivation its release.
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

    // One shortcut to bind.
    struct Shortcut
    {
        QString id; // "save-clip"
        QString description; // what the desktop shows the user
        QString displayText; // the key we would like, as the binding's display text
    };

    // The clip key's shortcut.
    static const QString clipId;
    // The shortcut of the key that saves `seconds` ("save-last-60s").
    static QString lengthId(int seconds);

    explicit PortalShortcut(QObject *parent = nullptr);
    ~PortalShortcut() override; // closes the session

    // Called on the main thread with the shortcut's id.
    std::function<void(const QString &id)> onPressed;
    std::function<void(const QString &id)> onReleased;
    // The state changed (bound, refused, unavailable).
    std::function<void()> onStateChanged;

    // Binds the shortcuts, each with its display text as the preferred trigger; again with new
    // ones after a binding changed (the earlier session is closed). Returns false, and does
    // nothing, when the portal lacks the interface.
    bool install(const QList<Shortcut> &shortcuts);
    // The clip key alone: "save-clip" with the binding's display text ("Ctrl+Shift+F12").
    bool install(const QString &displayText);
    void uninstall();

    State state() const { return m_state; }
    // What the desktop says the clip key's trigger is ("Ctrl+Shift+F12", "F12"), once bound.
    QString triggerDescription() const { return triggerDescription(clipId); }
    // The same for any of the shortcuts bound; empty for one the desktop gave no trigger.
    QString triggerDescription(const QString &id) const { return m_triggers.value(id); }
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
    // The id of one of our shortcuts that the signal is about; empty when it is not ours.
    QString ourShortcut(const QDBusMessage &message) const;

    QDBusConnection m_bus;
    State m_state = State::idle;
    QString m_session;
    QList<Shortcut> m_shortcuts; // as asked for, each with its preferred trigger
    QMap<QString, QString> m_triggers; // id -> what the desktop says the trigger is
    QString m_failure;
    int m_generation = 0; // answers for an older install() are dropped
};
