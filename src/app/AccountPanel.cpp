#include "app/AccountPanel.h"

#include "app/DashboardStyle.h"
#include "cloud/AccountStore.h"
#include "core/Palette.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QVBoxLayout>

using namespace DashboardStyle;

AccountPanel::AccountPanel(AccountStore &account, QWidget *parent)
    : QWidget(parent)
    , m_account(account)
{
    setObjectName(QStringLiteral("accountPanel"));
    auto *card = new Card(this);
    auto *outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    outer->addWidget(card);
    auto *column = new QVBoxLayout(card);
    column->setContentsMargins(14, 12, 14, 12);
    column->setSpacing(6);

    m_name = label(QString(), 15, QFont::DemiBold, Qt::white, card);
    m_email = label(QString(), 12, QFont::Normal, Palette::white(0.45), card);
    auto *codeRow = new QHBoxLayout;
    m_code = label(QString(), 12, QFont::Normal, Palette::white(0.7), card);
    m_copyCode =
        button(QStringLiteral("Copy"), QStringLiteral("copyCode"), Look::pill, Qt::white, 12, card);
    codeRow->addWidget(m_code);
    codeRow->addWidget(m_copyCode);
    codeRow->addStretch(1);
    m_discord = label(QString(), 12, QFont::Normal, Palette::white(0.55), card);
    m_discord->setWordWrap(true);
    m_signOut = button(QStringLiteral("Sign out"), QStringLiteral("signOut"), Look::pill,
                       Palette::white(0.7), 13, card);

    // The service signs people in with accounts of its own, so no provider is named.
    m_pitch = label(QStringLiteral("Sign in to share clips as links."), 13, QFont::Normal,
                    Palette::white(0.55), card);
    m_pitch->setWordWrap(true);
    m_signIn = button(QStringLiteral("Sign in"), QStringLiteral("signIn"), Look::accent, Qt::black,
                      13, card);
    m_pending = label(QString(), 12, QFont::Normal, Palette::white(0.7), card);
    m_pending->setObjectName(QStringLiteral("signInPending"));
    m_pending->setWordWrap(true);
    m_pending->setTextInteractionFlags(Qt::TextSelectableByMouse);

    for (QWidget *piece : {static_cast<QWidget *>(m_name), static_cast<QWidget *>(m_email)})
        column->addWidget(piece);
    column->addLayout(codeRow);
    column->addWidget(m_discord);
    auto *buttons = new QHBoxLayout;
    buttons->addWidget(m_signOut);
    buttons->addWidget(m_signIn);
    buttons->addStretch(1);
    column->addWidget(m_pitch);
    column->addWidget(m_pending);
    column->addLayout(buttons);
    column->addStretch(1);

    connect(m_signIn, &QPushButton::clicked, &m_account, &AccountStore::beginSignIn);
    connect(m_signOut, &QPushButton::clicked, &m_account, &AccountStore::signOut);
    connect(m_copyCode, &QPushButton::clicked, this, [this] {
        const auto profile = m_account.profile();
        if (!profile)
            return;
        QClipboard *clipboard = QGuiApplication::clipboard();
        clipboard->clear();
        clipboard->setText(profile->vantrelCode);
    });
    for (auto signal : {&AccountStore::tokenChanged, &AccountStore::profileChanged,
                        &AccountStore::loginCodeChanged, &AccountStore::loginMessageChanged,
                        &AccountStore::isSigningInChanged})
        connect(&m_account, signal, this, &AccountPanel::redraw);
    redraw();
}

void AccountPanel::redraw()
{
    const bool signedIn = m_account.isSignedIn();
    const AccountProfile profile = m_account.profile().value_or(AccountProfile());
    m_name->setVisible(signedIn);
    m_name->setText(profile.name);
    m_email->setVisible(signedIn && !profile.email.isEmpty());
    m_email->setText(profile.email);
    const bool hasCode = signedIn && !profile.vantrelCode.isEmpty();
    m_code->setVisible(hasCode);
    m_copyCode->setVisible(hasCode);
    m_code->setText(QStringLiteral("Code ") + profile.vantrelCode);
    m_discord->setVisible(signedIn && profile.discordLinked);
    m_discord->setText(QStringLiteral("Discord connected · /send is ready"));
    m_signOut->setVisible(signedIn);

    m_pitch->setVisible(!signedIn);
    m_signIn->setVisible(!signedIn);
    m_signIn->setEnabled(!m_account.isSigningIn());
    QStringList pending;
    if (!signedIn && !m_account.loginCodeText().isEmpty())
        pending << QStringLiteral("Code %1").arg(m_account.loginCodeText());
    if (!m_account.loginMessage().isEmpty())
        pending << m_account.loginMessage();
    m_pending->setVisible(!pending.isEmpty());
    m_pending->setText(pending.join(QStringLiteral(" — ")));
}
