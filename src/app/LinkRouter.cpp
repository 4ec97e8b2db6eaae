#include "app/LinkRouter.h"

#include "app/AppModel.h"
#include "app/ArmingController.h"
#include "app/ClipSaver.h"
#include "cloud/AccountStore.h"
#include "engine/ClipEngine.h"

LinkRouter::LinkRouter(ArmingController &arming, ClipSaver &saver, AppModel &model, QObject *parent)
    : QObject(parent)
    , m_arming(arming)
    , m_saver(saver)
    , m_model(model)
{
}

void LinkRouter::follow(const QStringList &links)
{
    for (const QString &link : links)
        follow(AppLink::parse(link));
}

void LinkRouter::follow(const AppLink &link)
{
    switch (link.kind) {
    case AppLink::Kind::start:
        m_arming.start();
        break;
    case AppLink::Kind::stop:
        m_arming.stop();
        break;
    case AppLink::Kind::clip:
        m_saver.save();
        break;
    case AppLink::Kind::open:
        emit windowWanted();
        break;
    case AppLink::Kind::auth:
        hurrySignIn(link.code);
        break;
    case AppLink::Kind::unknown:
        break;
    }
}

void LinkRouter::hurrySignIn(const QString &code)
{
    // Any web page can open a vantrel:// link. One that could sign the program in would send
    // every clip saved afterwards to a stranger's account, so a link only counts for the sign-in
    // this program started and is waiting on, and even then the token comes from the service.
    AccountStore &account = AccountStore::shared();
    if (!account.hurrySignIn(code)) {
        ClipEngine::log(QStringLiteral("refused a sign-in link: no sign-in of ours waits for it"));
        m_model.setStatus(QStringLiteral("A web page tried to sign Vantrel in. Nothing changed."));
        return;
    }
    m_model.setStatus(QStringLiteral("Finishing sign-in…"));
    const std::optional<QString> tokenBefore = account.token();
    disconnect(m_linkedSignIn);
    m_linkedSignIn =
        connect(&account, &AccountStore::isSigningInChanged, this, [this, &account, tokenBefore] {
            if (account.isSigningIn())
                return;
            disconnect(m_linkedSignIn);
            if (account.isSignedIn() && account.token() != tokenBefore)
                m_model.setStatus(QStringLiteral("Signed in."));
            else if (!account.loginMessage().isEmpty())
                m_model.setStatus(account.loginMessage());
        });
}
