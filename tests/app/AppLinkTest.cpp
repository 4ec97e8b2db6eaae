// Reading vantrel:// links: ours by scheme, host and nothing more, everything else unknown, and
// of a sign-in link only its code.

#include "app/AppLink.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

TEST(AppLinkTest, ReadsOurLinksAndNothingElse)
{
    using Kind = AppLink::Kind;
    const std::vector<std::pair<QString, Kind>> cases = {
        {"vantrel://start", Kind::start},
        {"vantrel://stop/", Kind::stop},
        {"VANTREL://CLIP", Kind::clip},
        {"vantrel://open", Kind::open},
        {"vantrel://auth?code=X", Kind::auth},
        {"vantrel://clip?x=1#y", Kind::clip},
        {"vantrel://other", Kind::unknown},
        {"vantrel:clip", Kind::unknown},
        {"vantrel://clip/extra", Kind::unknown},
        {"vantrel://user@clip", Kind::unknown},
        {"vantrel://clip:80", Kind::unknown},
        {"https://clip", Kind::unknown},
        {"vantrel://clip?" + QString(3000, QLatin1Char('a')), Kind::unknown},
        {"", Kind::unknown},
        {"\x01\x02 vantrel://start", Kind::unknown},
    };
    for (const auto &[text, kind] : cases)
        EXPECT_EQ(AppLink::parse(text).kind, kind) << text.left(40).toStdString();

    // The first code counts, decoded; a token is never read.
    EXPECT_EQ(AppLink::parse("vantrel://auth?token=t&code=A%2BB&code=C"),
              (AppLink {Kind::auth, QStringLiteral("A+B")}));
    EXPECT_EQ(AppLink::parse("vantrel://auth?token=stranger"), (AppLink {Kind::auth, {}}));
    EXPECT_EQ(AppLink::parse("vantrel://start?code=A").code, QString());
}
