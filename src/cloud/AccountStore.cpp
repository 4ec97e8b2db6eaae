#include "cloud/AccountStore.h"

#include "cloud/Cancellation.h"
#include "cloud/ClipCloud.h"
#include "cloud/CloudConfig.h"
#include "cloud/CloudError.h"
#include "cloud/KeychainStore.h"
#include "core/Log.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QTimer>

#include <qcoro/qcorotimer.h>

namespace {

// Waits `interval`, or less when the sign-in is cancelled or hurried meanwhile.
QCoro::Task<void> pause(std::chrono::milliseconds interval, QPointer<Cancellation> cancel,
                        const AccountStore *store)
{
    QTimer timer;
    timer.setSingleShot(true);
    if (cancel)
        QObject::connect(cancel, &Cancellation::cancelled, &timer, [&timer] { timer.start(0); });
    QObject::connect(store, &AccountStore::pollSoon, &timer, [&timer] { timer.start(0); });
    timer.start(interval);
    co_await timer;
}

bool cancelled(const QPointer<Cancellation> &cancel)
{
    return !cancel || cancel->isCancelled();
}

} // namespace

AccountStore &AccountStore::shared()
{
    // Parented to the application, so it goes before Qt's own objects do.
    static AccountStore *const store = new AccountStore(QCoreApplication::instance());
    return *store;
}

AccountStore::AccountStore(QObject *parent)
    : QObject(parent)
    , m_token(KeychainStore::load())
{
}

QVariant AccountStore::profileValue() const
{
    return m_profile ? QVariant::fromValue(*m_profile) : QVariant();
}

void AccountStore::bootstrap()
{
    if (m_token)
        refresh();
}

QCoro::Task<void> AccountStore::refresh()
{
    if (!m_token)
        co_return;
    QPointer<AccountStore> self(this);
    const QString token = *m_token;
    try {
        const AccountProfile profile = co_await ClipCloud::me(token);
        // A profile fetched for a token that has since been replaced or dropped is not this
        // user's.
        if (self && m_token == token)
            setProfile(profile);
    } catch (const CloudError &error) {
        if (self && m_token == token && error == CloudError::unauthorized())
            signOut();
    } catch (const std::exception &) {
        // Offline, say: the user stays signed in with the profile they had.
    }
}

void AccountStore::applyToken(const QString &token)
{
    setToken(token);
    KeychainStore::save(token);
    refresh();
}

void AccountStore::beginSignIn()
{
    cancelSignIn();
    setIsSigningIn(true);
    setLoginMessage(QStringLiteral("Opening sign-in…"));
    m_pollTask = new Cancellation(this);
    runSignIn(m_pollTask);
}

QCoro::Task<void> AccountStore::runSignIn(QPointer<Cancellation> cancel)
{
    QPointer<AccountStore> self(this);
    try {
        const DeviceStart start = co_await ClipCloud::createDevice(cancel);
        if (!self || cancelled(cancel))
            co_return;
        setLoginCode(start.code);
        m_waitingCode = start.code;
        setLoginMessage(QStringLiteral("Finish signing in in your browser."));
        openServicePage(start.url);

        for (int emptyPolls = 0;;) {
            co_await pause(m_pollInterval, cancel, this);
            if (!self || cancelled(cancel))
                co_return;
            const DevicePoll poll = co_await ClipCloud::pollDevice(start.code, cancel);
            if (!self || cancelled(cancel))
                co_return;
            if (poll.token) {
                applyToken(*poll.token);
                setIsSigningIn(false);
                setLoginCode(std::nullopt);
                setLoginMessage(QString());
                break;
            }
            if (++emptyPolls >= m_maxPolls) {
                setLoginMessage(QStringLiteral("Sign-in timed out. Try again."));
                setIsSigningIn(false);
                break;
            }
        }
    } catch (const std::exception &error) {
        if (!self || cancelled(cancel))
            co_return;
        setLoginMessage(QString::fromUtf8(error.what()));
        setIsSigningIn(false);
    }
    m_waitingCode.reset();
    if (m_pollTask == cancel) {
        m_pollTask->deleteLater();
        m_pollTask = nullptr;
    }
}

bool AccountStore::hurrySignIn(const QString &code)
{
    if (!m_isSigningIn || !m_waitingCode || code.isEmpty() || code != *m_waitingCode)
        return false;
    emit pollSoon();
    return true;
}

void AccountStore::cancelSignIn()
{
    m_waitingCode.reset();
    if (!m_pollTask)
        return;
    m_pollTask->cancel();
    m_pollTask->deleteLater();
    m_pollTask = nullptr;
}

void AccountStore::signOut()
{
    cancelSignIn();
    setToken(std::nullopt);
    setProfile(std::nullopt);
    setLoginCode(std::nullopt);
    setLoginMessage(QString());
    setIsSigningIn(false);
    KeychainStore::remove();
}

void AccountStore::openAccountPage()
{
    openServicePage(CloudConfig::appending(QStringLiteral("account")));
}

void AccountStore::openServicePage(const QUrl &page)
{
    if (CloudConfig::isServicePage(page))
        QDesktopServices::openUrl(page);
    else
        Log::system(QStringLiteral("did not open %1: not a page of the service")
                        .arg(page.toDisplayString()));
}

void AccountStore::setPollTiming(std::chrono::milliseconds interval, int maxPolls)
{
    m_pollInterval = interval;
    m_maxPolls = maxPolls;
}

void AccountStore::setToken(const std::optional<QString> &token)
{
    m_token = token;
    emit tokenChanged();
}

void AccountStore::setProfile(const std::optional<AccountProfile> &profile)
{
    m_profile = profile;
    emit profileChanged();
}

void AccountStore::setLoginCode(const std::optional<QString> &code)
{
    m_loginCode = code;
    emit loginCodeChanged();
}

void AccountStore::setLoginMessage(const QString &message)
{
    m_loginMessage = message;
    emit loginMessageChanged();
}

void AccountStore::setIsSigningIn(bool value)
{
    m_isSigningIn = value;
    emit isSigningInChanged();
}
