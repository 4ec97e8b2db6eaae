// The small rules the routes lean on, where a wrong edge would cost a client: byte ranges,
// release order, the rate buckets, the texts people send, request heads, the client behind a
// proxy and what the log masks, the names of shared stores and what S3 answers.
#include "service/ByteRange.h"
#include "service/MultipartStream.h"
#include "service/PostgresDatabase.h"
#include "service/RateLimiter.h"
#include "service/ReleaseVersion.h"
#include "service/RequestBody.h"
#include "service/RequestHead.h"
#include "service/S3Xml.h"
#include "service/SchemaMigrations.h"
#include "service/ServiceLog.h"
#include "service/StoreOptions.h"
#include "service/TextRules.h"
#include "service/TrustedProxies.h"

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

TEST(ServiceRulesTest, RequestHeadsAreReadOneWayOnly)
{
    const RequestHeadLimits limits;
    const auto parse = [&](const std::string &head) { return RequestHead::parse(head, limits); };
    const RequestHead good = parse("POST /v1/packs?x=1 HTTP/1.1\r\nHost: a\r\nContent-Length: 2, "
                                   "2\r\nContent-Length: 2\r\nExpect: 100-Continue\r\n"
                                   "X-Forwarded-For: 1.1.1.1, 2.2.2.2\r\nX-Forwarded-For: "
                                   "3.3.3.3\r\nConnection: close\r\n\r\n");
    ASSERT_EQ(good.refusal(), 0) << good.reason();
    EXPECT_EQ(good.path(), "/v1/packs");
    EXPECT_EQ(good.contentLength(), 2u);
    EXPECT_TRUE(good.expectsContinue());
    EXPECT_FALSE(good.keepAlive());
    EXPECT_EQ(good.forwardedFor(), (std::vector<std::string> {"1.1.1.1", "2.2.2.2", "3.3.3.3"}));
    const std::string text = good.text();
    EXPECT_EQ(text.find("Content-Length: 2\r\n"), text.rfind("Content-Length"))
        << "the library is given one length";
    EXPECT_FALSE(parse("GET / HTTP/1.0\r\n\r\n").keepAlive());
    EXPECT_TRUE(parse("GET / HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n").keepAlive());

    struct Case
    {
        std::string head;
        int status;
    };
    const std::string tooMany = [] {
        std::string head = "GET / HTTP/1.1\r\n";
        for (int i = 0; i < 101; ++i)
            head += "A" + std::to_string(i) + ": b\r\n";
        return head + "\r\n";
    }();
    for (const Case &c : {
             Case {"POST / HTTP/1.1\r\n\r\n", 411},
             Case {"PUT / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n", 411},
             Case {"GET / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n", 400},
             Case {"GET / HTTP/1.1\r\nContent-Length: 1, 2\r\n\r\n", 400},
             Case {"GET / HTTP/1.1\r\nContent-Length: -1\r\n\r\n", 400},
             Case {"GET / HTTP/1.1\r\nContent-Length: 99999999999999999999\r\n\r\n", 400},
             Case {"GET / HTTP/1.1\r\nA: b\r\n\tc\r\n\r\n", 400},
             Case {"GET / HTTP/1.1\r\nA : b\r\n\r\n", 400},
             Case {"GET / HTTP/1.1\r\nA: b\x01\r\n\r\n", 400},
             Case {"GET / HTTP/1.1\r\nA: b\nC: d\r\n\r\n", 400},
             Case {"GET /a b HTTP/1.1\r\n\r\n", 400},
             Case {"GET / HTTP/2.0\r\n\r\n", 505},
             Case {"GET /" + std::string(9000, 'a') + " HTTP/1.1\r\n\r\n", 414},
             Case {tooMany, 431},
             Case {"\r\n\r\n", 400},
         })
        EXPECT_EQ(parse(c.head).refusal(), c.status) << c.head.substr(0, 60);

    // The scanner finds the end across pieces and gives up on a flood of lines early.
    const std::string whole = "GET / HTTP/1.1\r\nHost: a\r\n\r\nbody";
    RequestHead::Scanner scanner(limits);
    for (size_t size = 1; size < whole.size(); ++size) {
        const std::optional<size_t> end = scanner.scan(std::string_view(whole).substr(0, size));
        if (end) {
            EXPECT_EQ(*end, whole.size() - 4);
            break;
        }
        EXPECT_LT(size, whole.size() - 4);
    }
    RequestHead::Scanner lines(limits);
    EXPECT_FALSE(lines.scan(std::string(300, '\n').insert(0, "GET / HTTP/1.1\r")));
    EXPECT_TRUE(lines.tooLarge()) << "more lines than headers allowed";
}

TEST(ServiceRulesTest, TheClientBehindTrustedProxiesAndTheLogsMasks)
{
    TrustedProxies proxies;
    proxies.add("127.0.0.1");
    proxies.add("::ffff:10.9.9.9");
    EXPECT_THROW(proxies.add("example.org"), std::invalid_argument);
    EXPECT_EQ(proxies.clientOf("127.0.0.1", {}), "127.0.0.1");
    EXPECT_EQ(proxies.clientOf("127.0.0.1", {"6.6.6.6", "1.2.3.4"}), "1.2.3.4");
    EXPECT_EQ(proxies.clientOf("127.0.0.1", {"1.2.3.4", "10.9.9.9"}), "1.2.3.4")
        << "a chain of trusted proxies";
    EXPECT_EQ(proxies.clientOf("127.0.0.1", {"1.2.3.4", "junk"}), "127.0.0.1");
    EXPECT_EQ(proxies.clientOf("8.8.8.8", {"1.2.3.4"}), "8.8.8.8") << "from anyone else: ignored";
    EXPECT_EQ(proxies.clientOf("127.0.0.1", {"2001:DB8::0001"}), "2001:db8::1");
    EXPECT_EQ(TrustedProxies::normalized("[::1]"), "::1");

    EXPECT_EQ(ServiceLog::redacted("1.2.3.4 GET /v1/auth/device/KXRT-4QWM 204"),
              "1.2.3.4 GET /v1/auth/device/[hidden] 204");
    EXPECT_EQ(ServiceLog::redacted("PUT /device/KXRT-4QWM 411"), "PUT /device/[hidden] 411");
    EXPECT_EQ(ServiceLog::redacted("token vt_abcdefghijklmnop_-X given"),
              "token vt_[hidden] given");
    EXPECT_EQ(ServiceLog::redacted("/device?code=AB12-CD34&x=1"), "/device?code=[hidden]&x=1");
    EXPECT_EQ(ServiceLog::redacted("line\nforged"), "line?forged");
    EXPECT_EQ(ServiceLog::redacted("GET /c/abcd2345efgh 200"), "GET /c/abcd2345efgh 200");
    EXPECT_EQ(ServiceLog::redacted("ABCD-EFGHI"), "ABCD-EFGHI") << "not a code's shape";
}

TEST(ServiceRulesTest, SharedStoresAreNamedAndAnsweredAsTheStoresWriteThem)
{
    using Address = std::optional<std::pair<std::string, std::string>>;
    EXPECT_EQ(StoreOptions::parseS3Address("s3://vantrel-clips/clips"),
              Address({"vantrel-clips", "clips"}));
    EXPECT_EQ(StoreOptions::parseS3Address("s3://vantrel-clips"), Address({"vantrel-clips", ""}));
    EXPECT_EQ(StoreOptions::parseS3Address("s3://b.example/a/b/"), Address({"b.example", "a/b"}));
    for (const char *bad :
         {"vantrel-clips/clips", "s3://", "s3://ab/x", "s3://Upper/x", "s3://bucket/a/../b",
          "s3://bucket/a//b", "s3://bucket/a?x", "/srv/clips"})
        EXPECT_FALSE(StoreOptions::parseS3Address(bad)) << bad;
    EXPECT_TRUE(StoreOptions::isPostgresUrl("postgresql://vantrel@db/vantrel"));
    EXPECT_TRUE(StoreOptions::isPostgresUrl("postgres://db/vantrel"));
    EXPECT_FALSE(StoreOptions::isPostgresUrl("/srv/vantrel/records.sqlite3"));
    EXPECT_EQ(PostgresDatabase::withoutPassword("postgresql://ann:s3cret@db:5432/v"),
              "postgresql://ann@db:5432/v");
    EXPECT_EQ(PostgresDatabase::withoutPassword("postgresql://ann@db/v"), "postgresql://ann@db/v");

    // A listing as the S3 servers write it: keys with entities, sizes, times, a continuation.
    const std::string listing =
        "<?xml version=\"1.0\"?><ListBucketResult><IsTruncated>true</IsTruncated>"
        "<Contents><Key>p/clips/a&amp;b.mp4</Key><LastModified>2026-11-26T11:02:03.123Z"
        "</LastModified><Size>1234</Size></Contents><Contents><Key>p/clips/c.mp4</Key>"
        "<Size>5</Size></Contents><NextContinuationToken>t&lt;1</NextContinuationToken>"
        "</ListBucketResult>";
    const std::vector<std::string> contents = S3Xml::elements(listing, "Contents");
    ASSERT_EQ(contents.size(), 2u);
    EXPECT_EQ(S3Xml::element(contents[0], "Key"), "p/clips/a&b.mp4");
    EXPECT_EQ(S3Xml::element(contents[0], "Size"), "1234");
    EXPECT_EQ(S3Xml::time(S3Xml::element(contents[0], "LastModified")), 1795690923);
    EXPECT_EQ(S3Xml::time(S3Xml::element(contents[1], "LastModified")), 0);
    EXPECT_EQ(S3Xml::element(listing, "NextContinuationToken"), "t<1");
    EXPECT_EQ(S3Xml::element(listing, "IsTruncated"), "true");
    EXPECT_EQ(S3Xml::element("<Error><Code>NoSuchKey</Code></Error>", "Code"), "NoSuchKey");
    EXPECT_EQ(S3Xml::element("<Code>unclosed", "Code"), "");

    // One list of schema steps, in order, each meaning something to at least one store.
    int last = 0;
    for (const SchemaMigrations::Step &step : SchemaMigrations::steps()) {
        EXPECT_EQ(step.version, last + 1);
        EXPECT_TRUE(step.sqlite || step.postgres) << step.version;
        last = step.version;
    }
    EXPECT_EQ(SchemaMigrations::latest(), last);
}
