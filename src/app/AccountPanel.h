#pragma once

#include <QWidget>

class AccountStore;
class QLabel;
class QPushButton;
class QVBoxLayout;

// Settings' account area over the account store: signed in, the profile with its code, the
// Discord line when the service says it is connected, and "Sign out"; signed out, what signing in
// is for, "Sign in", and the pending code and message while the browser sign-in runs. It keeps
// nothing of its own: every change of the store redraws it.
class AccountPanel : public QWidget
{
    Q_OBJECT

public:
    explicit AccountPanel(AccountStore &account, QWidget *parent = nullptr);

private:
    void redraw();

    AccountStore &m_account;
    QLabel *m_name = nullptr;
    QLabel *m_email = nullptr;
    QLabel *m_code = nullptr;
    QPushButton *m_copyCode = nullptr;
    QLabel *m_discord = nullptr;
    QPushButton *m_signOut = nullptr;
    QLabel *m_pitch = nullptr;
    QPushButton *m_signIn = nullptr;
    QLabel *m_pending = nullptr;
};
