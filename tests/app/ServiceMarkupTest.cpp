// A hostile service puts markup where the window shows its words: release notes, a profile name,
// the sentence of a refusal. Qt labels would render it (pictures fetched from anywhere, links,
// text that hides the rest); the window shows it as the characters it is.

#include "CloudTestSupport.h"
#include "RawHttpServer.h"

#include "app/AccountPanel.h"
#include "app/AppModel.h"
#include "app/DashboardCallbacks.h"
#include "app/HomePage.h"
#include "app/UpdatePanel.h"
#include "cloud/AccountStore.h"
#include "support/TestEnvironment.h"
#include "update/UpdateStore.h"

#include <QLabel>

#include <qcoro/qcorotask.h>

#include <cstdlib>

namespace {

const QByteArray markup =
    R"(<img src=\"file:///etc/passwd\"><a href=\"https://evil.example\">Update now</a><b>!</b>)";
const QString shown = QStringLiteral(
    R"(<img src="file:///etc/passwd"><a href="https://evil.example">Update now</a><b>!</b>)");

class MarkupFromTheService : public TempHomeTest
{
protected:
    // The labels under `root` that show `text`, and how they read it.
    static QList<Qt::TextFormat> formatsShowing(QWidget &root, const QString &text)
    {
        QList<Qt::TextFormat> formats;
        for (const QLabel *label : root.findChildren<QLabel *>())
            if (label->text().contains(text))
                formats << label->textFormat();
        return formats;
    }
};

} // namespace

TEST_F(MarkupFromTheService, NotesNamesAndRefusalsShowAsTheCharactersTheyAre)
{
    RawHttpServer service;
    service.answer("/v1/version", {{200, R"({"version":"9.0","notes":")" + markup + "\"}"}});
    service.answer("/v1/me", {{200, R"({"name":")" + markup + "\"}"}});
    setenv("VANTREL_SERVICE_URL", service.url().toUtf8().constData(), 1);

    UpdateStore updates;
    QCoro::waitFor(updates.load());
    ASSERT_EQ(updates.availableNotes(), shown);
    updates.setShowSheet(true);
    UpdateSheet sheet(updates);
    EXPECT_EQ(formatsShowing(sheet, shown), QList<Qt::TextFormat>({Qt::PlainText}));

    AccountStore &account = AccountStore::shared();
    account.applyToken(QStringLiteral("tok"));
    ASSERT_TRUE(waitUntil([&] { return account.profile().has_value(); }, 5000));
    AccountPanel panel(account);
    EXPECT_EQ(formatsShowing(panel, shown), QList<Qt::TextFormat>({Qt::PlainText}));

    // A refusal's sentence reaches the status line as the service wrote it.
    AppModel model;
    const DashboardCallbacks callbacks;
    HomePage home(model, callbacks);
    model.setStatus(shown);
    EXPECT_EQ(formatsShowing(home, shown), QList<Qt::TextFormat>({Qt::PlainText}));
}
