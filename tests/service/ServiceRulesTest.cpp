// The small rules the routes lean on, where a wrong edge would cost a client: byte ranges,
// release order, the rate buckets, the texts people send.
#include "service/ByteRange.h"
#include "service/MultipartStream.h"
#include "service/RateLimiter.h"
#include "service/ReleaseVersion.h"
#include "service/RequestBody.h"
#include "service/TextRules.h"

#include <gtest/gtest.h>

TEST(ServiceRulesTest, ByteRangesAgainstAThousandByteFile)
{
    struct Case
    {
        const char *header;
        ByteRange::Outcome outcome;
        uint64_t first, length;
    };
    using O = ByteRange::Outcome;
    for (const Case &c :
         {Case {"", O::whole, 0, 0}, Case {"bytes=0-99", O::partial, 0, 100},
          Case {"bytes=990-", O::partial, 990, 10}, Case {"bytes=-10", O::partial, 990, 10},
          Case {"bytes=-5000", O::partial, 0, 1000}, Case {"bytes=500-99999", O::partial, 500, 500},
          Case {"bytes=999-999", O::partial, 999, 1}, Case {"bytes=1000-", O::unsatisfiable, 0, 0},
          Case {"bytes=5-2", O::unsatisfiable, 0, 0}, Case {"bytes=-0", O::unsatisfiable, 0, 0},
          Case {"bytes=abc-", O::unsatisfiable, 0, 0}, Case {"bytes=0-1,5-6", O::whole, 0, 0},
          Case {"items=0-5", O::whole, 0, 0},
          Case {"bytes=18446744073709551615-", O::unsatisfiable, 0, 0}}) {
        ByteRange range;
        EXPECT_EQ(ByteRange::parse(c.header, 1000, range), c.outcome) << c.header;
        if (c.outcome == O::partial) {
            EXPECT_EQ(range.first, c.first) << c.header;
            EXPECT_EQ(range.length, c.length) << c.header;
        }
    }
}

TEST(ServiceRulesTest, ReleasesOrderAsTheProgramComparesThem)
{
    EXPECT_TRUE(ReleaseVersion::isNewer("1.1.10", "1.1.3"));
    EXPECT_FALSE(ReleaseVersion::isNewer("1.1.3.0", "1.1.3"));
    EXPECT_TRUE(ReleaseVersion::isNewer("2.0-beta", "1.9"));
    const auto newest = ReleaseVersion::newest({{"1.2", "", "a", "", 0, 0},
                                                {"1.10", "", "b", "", 0, 0},
                                                {"1.9.9", "", "c", "", 0, 0},
                                                {"1.10.0", "", "d", "", 0, 0}});
    ASSERT_TRUE(newest);
    EXPECT_EQ(newest->fileName, "d") << "of equal versions the one added last";
    for (const char *bad : {"", "../1", "1/2", "v1", "1..2", "1 2"})
        EXPECT_FALSE(ReleaseVersion::isValid(bad)) << bad;
}

TEST(ServiceRulesTest, RateBucketsRefillOverAMinute)
{
    RateLimiter limiter(6);
    const auto start = RateLimiter::Clock::now();
    for (int i = 0; i < 6; ++i)
        EXPECT_TRUE(limiter.allow("a", start)) << i;
    EXPECT_FALSE(limiter.allow("a", start));
    EXPECT_TRUE(limiter.allow("b", start)) << "each key has its own bucket";
    EXPECT_FALSE(limiter.allow("a", start + std::chrono::seconds(9)));
    EXPECT_TRUE(limiter.allow("a", start + std::chrono::seconds(11))) << "one back every 10 s";
    EXPECT_EQ(limiter.retryAfterSeconds(), 10);
}

TEST(ServiceRulesTest, TextsPeopleSend)
{
    EXPECT_EQ(TextRules::cleanLine("  My\tclip\n "), "My clip");
    EXPECT_EQ(TextRules::cleanLine("a\x01"
                                   "b"),
              "ab");
    EXPECT_EQ(TextRules::cleanLine("Größe 🎮"), "Größe 🎮");
    EXPECT_FALSE(TextRules::cleanLine("\xc0\xaf"));
    EXPECT_FALSE(TextRules::cleanLine("\xed\xa0\x80"));
    EXPECT_EQ(TextRules::characterCount("Größe 🎮"), 7u);
    for (const char *bad : {"../a.mp4", "a/b.mp4", "a\\b.mp4", "..", "", "a\nb.mp4"})
        EXPECT_FALSE(TextRules::isPlainFileName(bad)) << bad;
    EXPECT_TRUE(TextRules::isPlainFileName("Clip 2026-11-23 21.04.07.mp4"));
    const auto form =
        RequestBody::parseForm("code=AB-CD&email=a%40b.c&password=p+w%26%3D&code=other");
    EXPECT_EQ(form.at("code"), "AB-CD");
    EXPECT_EQ(form.at("email"), "a@b.c");
    EXPECT_EQ(form.at("password"), "p w&=");
}

TEST(ServiceRulesTest, MultipartPartsArriveWholeHoweverTheBodyIsCut)
{
    const std::string boundary = "Boundary-1F";
    EXPECT_EQ(MultipartStream::boundaryOf("multipart/form-data; boundary=" + boundary), boundary);
    EXPECT_EQ(MultipartStream::boundaryOf("multipart/form-data; boundary=\"a b\""), "a b");
    EXPECT_EQ(MultipartStream::boundaryOf("application/json"), "");
    // File bytes that look like the start of a boundary, without being one.
    const std::string file =
        "\r\n--Boundary-1\r\n-" + std::string(3000, '\0') + "\r\n--Boundary-1E";
    const std::string body = "preamble\r\n--" + boundary +
        "\r\nContent-Disposition: form-data; name=\"name\"\r\n\r\nMy clip\r\n--" + boundary +
        "\r\ncontent-disposition: form-data; name=\"file\"; filename=\"a; b.mp4\"\r\n"
        "Content-Type: video/mp4\r\n\r\n" +
        file + "\r\n--" + boundary + "--\r\nepilogue";
    for (const size_t piece : {size_t(1), size_t(7), size_t(4096), body.size()}) {
        std::vector<MultipartStream::Part> parts;
        std::vector<std::string> contents;
        MultipartStream stream(
            boundary,
            [&](const MultipartStream::Part &part) {
                parts.push_back(part);
                contents.emplace_back();
                return true;
            },
            [&](const char *data, size_t size) {
                contents.back().append(data, size);
                return true;
            });
        for (size_t at = 0; at < body.size(); at += piece)
            ASSERT_TRUE(stream.feed(body.data() + at, std::min(piece, body.size() - at))) << piece;
        EXPECT_TRUE(stream.complete()) << piece;
        ASSERT_EQ(parts.size(), 2u) << piece;
        EXPECT_EQ(parts[0].name, "name");
        EXPECT_EQ(contents[0], "My clip");
        EXPECT_EQ(parts[1].fileName, "a; b.mp4");
        EXPECT_EQ(parts[1].contentType, "video/mp4");
        EXPECT_EQ(contents[1], file) << piece;
    }
    MultipartStream cut(
        boundary, [](const MultipartStream::Part &) { return true; },
        [](const char *, size_t) { return true; });
    EXPECT_TRUE(cut.feed(body.data(), body.size() / 2));
    EXPECT_FALSE(cut.complete()) << "a body cut short never completes";
    MultipartStream junk(
        boundary, [](const MultipartStream::Part &) { return true; },
        [](const char *, size_t) { return true; });
    const std::string noDisposition = "--" + boundary + "\r\nContent-Type: x\r\n\r\nz";
    EXPECT_FALSE(junk.feed(noDisposition.data(), noDisposition.size()));
}
