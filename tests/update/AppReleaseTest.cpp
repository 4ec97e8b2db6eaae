#include "update/AppRelease.h"

#include <gtest/gtest.h>

TEST(AppReleaseTest, CheckRepliesGiveNotesLocationAndSignature)
{
    const QUrl base(QStringLiteral("https://vantrel.example"));
    const auto read = [&base](const char *json) {
        return AppRelease::fromCheckReply(QByteArray(json), base);
    };

    const auto full = read(R"({"version":"1.2.0","notes":"Faster.","linux_url":"/d/V.tar.gz",)"
                           R"("linux_sig":"AAECAw=="})");
    ASSERT_TRUE(full);
    EXPECT_EQ(full->version, "1.2.0");
    EXPECT_EQ(full->notes, "Faster.");
    EXPECT_EQ(full->url.toString(), "https://vantrel.example/d/V.tar.gz");
    EXPECT_EQ(full->signature, QByteArray("\x00\x01\x02\x03", 4));

    // Defaults: notes, and the archive's usual place against the base URL.
    const QString fallback =
        QStringLiteral("https://vantrel.example/download/Vantrel-linux-x86_64.tar.gz");
    const auto bare = read(R"({"version":"1.2.0","notes":7,"linux_url":""})");
    ASSERT_TRUE(bare);
    EXPECT_EQ(bare->notes, "Bug fixes and improvements.");
    EXPECT_EQ(bare->url.toString(), fallback);
    EXPECT_TRUE(bare->signature.isEmpty());
    EXPECT_EQ(read(R"({"version":"1.2.0","linux_url":5})")->url.toString(), fallback);

    // An absolute location is taken as it is; one starting with "http" that is no URL falls back.
    EXPECT_EQ(
        read(R"({"version":"1","linux_url":"https://cdn.example/a/V.tar.gz"})")->url.toString(),
        "https://cdn.example/a/V.tar.gz");
    EXPECT_EQ(read(R"({"version":"1","linux_url":"http://exa mple/V"})")->url.toString(), fallback);
    EXPECT_EQ(read(R"({"version":"1","linux_url":"https:no-host"})")->url.toString(), fallback);
    // A relative one without a slash resolves against the base too.
    EXPECT_EQ(read(R"({"version":"1","linux_url":"files/V.tar.gz"})")->url.toString(),
              "https://vantrel.example/files/V.tar.gz");
    // A base with a path of its own keeps it for the fallback.
    EXPECT_EQ(AppRelease::fromCheckReply(R"({"version":"1","linux_url":"http://[bad"})",
                                         QUrl(QStringLiteral("https://h.example/vantrel")))
                  ->url.toString(),
              "https://h.example/vantrel/download/Vantrel-linux-x86_64.tar.gz");
    // A signature that is not base64 is none at all.
    EXPECT_TRUE(read(R"({"version":"1","linux_sig":"***"})")->signature.isEmpty());

    // No release without a string version in a JSON object.
    EXPECT_FALSE(read(R"({"version":2})"));
    EXPECT_FALSE(read(R"({"notes":"x"})"));
    EXPECT_FALSE(read(R"([{"version":"1.2"}])"));
    EXPECT_FALSE(read("Service unavailable"));
}
