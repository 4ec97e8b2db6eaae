#include "input/PortalShortcut.h"

#include "core/DesktopPortal.h"
#include "core/Log.h"
#include "core/PortalResponse.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QStringList>
#include <QTimer>

namespace {

const QString globalShortcuts = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");
// The desktop may show a dialog for the binding; the user gets this long to answer it.
constexpr int answerTimeMs = 120000;

// One entry of BindShortcuts' a(sa{sv}).
struct BusShortcut
{
    QString id;
    QVariantMap properties;
};

QDBusArgument &operator<<(QDBusArgument &argument, const BusShortcut &shortcut)
{
    argument.beginStructure();
    argument << shortcut.id << shortcut.properties;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, BusShortcut &shortcut)
{
    argument.beginStructure();
    argument >> shortcut.id >> shortcut.properties;
    argument.endStructure();
    return argument;
}

} // namespace

Q_DECLARE_METATYPE(BusShortcut)

namespace {

// The a(sa{sv}) that CreateSession's "shortcuts" option and BindShortcuts both take.
QList<BusShortcut> busShortcuts(const QList<PortalShortcut::Shortcut> &asked)
{
    QList<BusShortcut> shortcuts;
    for (const PortalShortcut::Shortcut &shortcut : asked) {
        QVariantMap properties {{QStringLiteral("description"), shortcut.description}};
        if (!shortcut.displayText.isEmpty())
            properties.insert(QStringLiteral("preferred_trigger"), shortcut.displayText);
        shortcuts.append({shortcut.id, properties});
    }
    return shortcuts;
}

} // namespace

const QString PortalShortcut::clipId = QStringLiteral("save-clip");

QString PortalShortcut::lengthId(int seconds)
{
    return QStringLiteral("save-last-%1s").arg(seconds);
}

PortalShortcut::PortalShortcut(QObject *parent)
    : QObject(parent)
    , m_bus(DesktopPortal::connect(QStringLiteral("shortcuts")))
{
    qDBusRegisterMetaType<BusShortcut>();
    qDBusRegisterMetaType<QList<BusShortcut>>();
    for (const char *signal : {"Activated", "Deactivated"}) {
        const bool listening = m_bus.connect(DesktopPortal::service, DesktopPortal::objectPath,
                                             globalShortcuts, QLatin1String(signal), this,
                                             signal[0] == 'A' ? SLOT(activated(QDBusMessage))
                                                              : SLOT(deactivated(QDBusMessage)));
        if (!listening)
            Log::system(QStringLiteral("global shortcut: cannot listen to %1: %2")
                            .arg(QLatin1String(signal), m_bus.lastError().message()));
    }
}

PortalShortcut::~PortalShortcut()
{
    closeSession();
    QDBusConnection::disconnectFromBus(m_bus.name());
}

QString PortalShortcut::preferredTrigger(const QString &displayText)
{
    QStringList parts = displayText.split(QLatin1Char('+'), Qt::SkipEmptyParts);
    // "Ctrl++" names the plus key itself.
    if (displayText.endsWith(QLatin1String("++")))
        parts.append(QStringLiteral("plus"));
    for (QString &part : parts) {
        if (part == QLatin1String("Ctrl"))
            part = QStringLiteral("CTRL");
        else if (part == QLatin1String("Alt"))
            part = QStringLiteral("ALT");
        else if (part == QLatin1String("Shift"))
            part = QStringLiteral("SHIFT");
        else if (part == QLatin1String("Super"))
            part = QStringLiteral("LOGO");
        else if (part.size() == 1)
            part = part.toLower();
    }
    return parts.join(QLatin1Char('+'));
}

bool PortalShortcut::install(const QString &displayText)
{
    return install({{clipId, QStringLiteral("Save a clip of the last seconds"), displayText}});
}

bool PortalShortcut::install(const QList<Shortcut> &shortcuts)
{
    if (!DesktopPortal::interfaceVersion(m_bus, globalShortcuts)) {
        setState(State::unavailable,
                 QStringLiteral("the desktop portal offers no GlobalShortcuts"));
        return false;
    }
    m_shortcuts = shortcuts;
    for (Shortcut &shortcut : m_shortcuts)
        shortcut.displayText = preferredTrigger(shortcut.displayText);
    closeSession();
    const int generation = ++m_generation;
    setState(State::binding);
    // The shortcuts go to CreateSession as well as to BindShortcuts: Plasma before 6.1 registers
    // only those given to CreateSession and ignores BindShortcuts' list, and a desktop that
    // honours both binds the same ids twice, which changes nothing.
    request(QStringLiteral("CreateSession"), {},
            {{QStringLiteral("session_handle_token"), DesktopPortal::newToken()},
             {QStringLiteral("shortcuts"), QVariant::fromValue(busShortcuts(m_shortcuts))}},
            [this, generation](uint code, const QVariantMap &results) {
                if (generation != m_generation)
                    return;
                m_session = results.value(QStringLiteral("session_handle")).toString();
                if (code != 0 || m_session.isEmpty()) {
                    setState(State::refused, QStringLiteral("CreateSession answered %1").arg(code));
                    return;
                }
                bind();
            });
    return true;
}

void PortalShortcut::bind()
{
    const int generation = m_generation;
    request(
        QStringLiteral("BindShortcuts"),
        {QVariant::fromValue(QDBusObjectPath(m_session)),
         QVariant::fromValue(busShortcuts(m_shortcuts)), QString()},
        {}, [this, generation](uint code, const QVariantMap &results) {
            if (generation != m_generation)
                return;
            if (code != 0) {
                setState(State::refused, QStringLiteral("BindShortcuts answered %1").arg(code));
                return;
            }
            QList<BusShortcut> bound;
            const QVariant list = results.value(QStringLiteral("shortcuts"));
            if (list.canConvert<QDBusArgument>())
                list.value<QDBusArgument>() >> bound;
            m_triggers.clear();
            for (const BusShortcut &shortcut : bound)
                m_triggers.insert(
                    shortcut.id,
                    shortcut.properties.value(QStringLiteral("trigger_description")).toString());
            setState(State::bound);
        });
}

void PortalShortcut::uninstall()
{
    ++m_generation;
    closeSession();
    setState(State::idle);
}

void PortalShortcut::closeSession()
{
    if (m_session.isEmpty())
        return;
    m_bus.send(QDBusMessage::createMethodCall(DesktopPortal::service, m_session,
                                              QStringLiteral("org.freedesktop.portal.Session"),
                                              QStringLiteral("Close")));
    m_session.clear();
    m_triggers.clear();
}

void PortalShortcut::setState(State state, const QString &failure)
{
    m_failure = failure;
    if (state == m_state)
        return;
    m_state = state;
    if (state == State::bound) {
        QStringList bound;
        for (const Shortcut &shortcut : m_shortcuts) {
            const QString trigger = m_triggers.value(shortcut.id);
            bound << QStringLiteral("%1 %2 (asked %3)")
                         .arg(shortcut.id,
                              trigger.isEmpty() ? QStringLiteral("no trigger yet") : trigger,
                              shortcut.displayText.isEmpty() ? QStringLiteral("nothing")
                                                             : shortcut.displayText);
        }
        Log::system(QStringLiteral("global shortcut bound through the desktop portal: %1")
                        .arg(bound.join(QStringLiteral(", "))));
    } else if (!failure.isEmpty())
        Log::system(QStringLiteral("global shortcut: %1").arg(failure));
    if (onStateChanged)
        onStateChanged();
}

void PortalShortcut::request(const QString &method, QList<QVariant> arguments, QVariantMap options,
                             std::function<void(uint, const QVariantMap &)> then)
{
    const QString token = DesktopPortal::newToken();
    options.insert(QStringLiteral("handle_token"), token);
    arguments.append(options);
    const QString path = DesktopPortal::requestPath(m_bus, token);
    auto *response = new PortalResponse;
    response->setParent(this);
    m_bus.connect(DesktopPortal::service, path, QStringLiteral("org.freedesktop.portal.Request"),
                  QStringLiteral("Response"), response, SLOT(respond(uint, QVariantMap)));
    connect(response, &PortalResponse::answeredNow, this, [this, response, path, then] {
        m_bus.disconnect(DesktopPortal::service, path,
                         QStringLiteral("org.freedesktop.portal.Request"),
                         QStringLiteral("Response"), response, SLOT(respond(uint, QVariantMap)));
        response->deleteLater();
        then(response->code(), response->results());
    });
    QTimer::singleShot(answerTimeMs, response, [response] { response->respond(2, {}); });

    QDBusMessage call = QDBusMessage::createMethodCall(
        DesktopPortal::service, DesktopPortal::objectPath, globalShortcuts, method);
    call.setArguments(arguments);
    auto *watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(call), response);
    connect(watcher, &QDBusPendingCallWatcher::finished, response,
            [response, method](QDBusPendingCallWatcher *finished) {
                finished->deleteLater();
                if (finished->isError()) {
                    Log::system(QStringLiteral("global shortcut: %1 failed: %2")
                                    .arg(method, finished->error().message()));
                    response->respond(2, {});
                }
            });
}

QString PortalShortcut::ourShortcut(const QDBusMessage &message) const
{
    const QList<QVariant> arguments = message.arguments();
    if (arguments.size() < 2 || m_session.isEmpty() ||
        arguments[0].value<QDBusObjectPath>().path() != m_session)
        return {};
    const QString id = arguments[1].toString();
    for (const Shortcut &shortcut : m_shortcuts) {
        if (shortcut.id == id)
            return id;
    }
    return {};
}

void PortalShortcut::activated(const QDBusMessage &message)
{
    if (const QString id = ourShortcut(message); !id.isEmpty() && onPressed)
        onPressed(id);
}

void PortalShortcut::deactivated(const QDBusMessage &message)
{
    if (const QString id = ourShortcut(message); !id.isEmpty() && onReleased)
        onReleased(id);
}
