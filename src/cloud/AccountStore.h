#pragma once

#include "cloud/AccountProfile.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>
#include <QVariant>

#include <chrono>
#include <optional>

#include <qcoro/qcorotask.h>

class Cancellation;

// Who is signed in to the service, and the browser sign-in in progress. One instance for the
// process (`shared()`), made on first use, when it reads the token from the secret store: a
// returning user is signed in at once and the profile follows from `bootstrap`. The window
// draws from the properties; everything runs on the main thread.
//
// Sign-in: the service hands out a code and a page; the browser opens that page, where the user
// approves, while the store asks the service every 2 s, at most 90 times, for the token. At most
// one sign-in runs: a new one, or signing out, cancels the one before, which then ends without
// touching any field.
//
// A token is only ever taken from the service's answer to a sign-in this store started. A
// vantrel:// sign-in link can at most hurry the waiting sign-in's next poll (hurrySignIn); it
// never carries the token that is kept, so no web page can sign the program in to an account.
class AccountStore : public QObject
{
    Q_OBJECT
    // The bearer token; empty when signed out. Present means signed in.
    Q_PROPERTY(QString token READ tokenText NOTIFY tokenChanged)
    Q_PROPERTY(bool isSignedIn READ isSignedIn NOTIFY tokenChanged)
    // An AccountProfile, or null until one was fetched for the token.
    Q_PROPERTY(QVariant profile READ profileValue NOTIFY profileChanged)
    // The code of the sign-in in progress, for display; empty when none.
    Q_PROPERTY(QString loginCode READ loginCodeText NOTIFY loginCodeChanged)
    Q_PROPERTY(QString loginMessage READ loginMessage NOTIFY loginMessageChanged)
    Q_PROPERTY(bool isSigningIn READ isSigningIn NOTIFY isSigningInChanged)

public:
    static AccountStore &shared();

    std::optional<QString> token() const { return m_token; }
    QString tokenText() const { return m_token.value_or(QString()); }
    bool isSignedIn() const { return m_token.has_value(); }
    std::optional<AccountProfile> profile() const { return m_profile; }
    QVariant profileValue() const;
    std::optional<QString> loginCode() const { return m_loginCode; }
    QString loginCodeText() const { return m_loginCode.value_or(QString()); }
    QString loginMessage() const { return m_loginMessage; }
    bool isSigningIn() const { return m_isSigningIn; }

    // At launch: fetches the profile of a returning user.
    void bootstrap();
    // Fetches the profile for the current token. A refused token signs the user out; any other
    // failure leaves the last profile as it is.
    QCoro::Task<void> refresh();
    // Signs in with `token` (the sign-in's), keeps it in the secret store and fetches the
    // profile.
    void applyToken(const QString &token);
    // A sign-in link naming `code`: when a sign-in started here is waiting for exactly that code
    // (the one it showed), its next poll goes at once and this returns true. Anything else
    // changes nothing and returns false.
    bool hurrySignIn(const QString &code);
    // Starts the browser sign-in; a sign-in already running is dropped.
    Q_INVOKABLE void beginSignIn();
    // Forgets the token here and in the secret store. The service is not told.
    Q_INVOKABLE void signOut();
    // The account page of the service's web site, in the browser.
    Q_INVOKABLE void openAccountPage();

    // The wait between two polls and the number of polls before giving up; tests shorten them.
    void setPollTiming(std::chrono::milliseconds interval, int maxPolls);

signals:
    void tokenChanged();
    void profileChanged();
    void loginCodeChanged();
    void loginMessageChanged();
    void isSigningInChanged();
    // For the running sign-in: poll now rather than after the wait (see hurrySignIn).
    void pollSoon();

private:
    explicit AccountStore(QObject *parent);

    QCoro::Task<void> runSignIn(QPointer<Cancellation> cancel);
    void cancelSignIn();
    // Opens `page` in the browser when it is one of the service's own pages; logs it otherwise.
    void openServicePage(const QUrl &page);
    void setToken(const std::optional<QString> &token);
    void setProfile(const std::optional<AccountProfile> &profile);
    void setLoginCode(const std::optional<QString> &code);
    void setLoginMessage(const QString &message);
    void setIsSigningIn(bool value);

    std::optional<QString> m_token;
    std::optional<AccountProfile> m_profile;
    std::optional<QString> m_loginCode;
    QString m_loginMessage;
    bool m_isSigningIn = false;
    // The running sign-in's handle; cancelling it ends that sign-in.
    QPointer<Cancellation> m_pollTask;
    // The code the running sign-in showed and polls for, once the service gave it.
    std::optional<QString> m_waitingCode;
    std::chrono::milliseconds m_pollInterval {2000};
    int m_maxPolls = 90;
};
