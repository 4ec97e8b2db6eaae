// The sponsor cards from a web server of the test's own: which replies replace the cards and
// how each card's fields are read, and the rail drawing them with their pictures.

#include "promo/AdsStore.h"
#include "promo/RailCard.h"
#include "promo/SponsoredRail.h"

#include "support/LocalHttpServer.h"
#include "support/TestEnvironment.h"
#include "support/WidgetTesting.h"

#include <QBuffer>
#include <QImage>
#include <QSignalSpy>

namespace {

QByteArray png(int width, int height)
{
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(QColor(200, 120, 40));
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
}

class AdsStoreTest : public TempHomeTest
{
protected:
    void SetUp() override
    {
        TempHomeTest::SetUp();
        qputenv("VANTREL_SERVICE_URL", server.url().toString().toUtf8());
    }

    void serve(int status, const QByteArray &body)
    {
        server.set(QStringLiteral("/v1/ads"), {status, "application/json", body});
    }

    // Refreshes and waits until the reply was handled, whether or not it changed anything.
    void load(AdsStore &ads)
    {
        const int before = server.requestCount(QStringLiteral("/v1/ads"));
        QSignalSpy changed(&ads, &AdsStore::slotListChanged);
        ads.refresh();
        ASSERT_TRUE(
            waitUntil([&] { return server.requestCount(QStringLiteral("/v1/ads")) > before; }));
        waitUntil([&] { return !changed.isEmpty(); }, 300);
    }

    QStringList names(const AdsStore &ads)
    {
        QStringList out;
        for (const AdSlot &slot : ads.slotList())
            out << slot.id + QLatin1Char('=') + slot.name + QLatin1Char('/') + slot.line;
        return out;
    }

    LocalHttpServer server;
};

const QStringList placeholders {QStringLiteral("1=This spot/Sponsored"),
                                QStringLiteral("2=This spot/Sponsored"),
                                QStringLiteral("3=This spot/Sponsored")};

} // namespace

TEST_F(AdsStoreTest, UnusableRepliesKeepWhatTheRailShows)
{
    AdsStore ads;
    EXPECT_EQ(names(ads), placeholders);
    for (const auto &[status, body] : std::initializer_list<std::pair<int, QByteArray>> {
             {500, R"({"slots":[{"id":"x","name":"X"}]})"},
             {200, "<html>not json</html>"},
             {200, R"(["slots"])"},
             {200, R"({"cards":[]})"},
             {200, R"({"slots":[{"id":"x"}, "y"]})"},
             {200, R"({"slots":[]})"},
             // Far past any list of three cards: not read, however valid.
             {200,
              R"({"slots":[{"id":"x","name":"X","line":")" + QByteArray(2 << 20, 'z') +
                  R"("}]})"}}) {
        serve(status, body);
        load(ads);
        EXPECT_EQ(names(ads), placeholders) << body.left(80).toStdString();
    }

    serve(200, R"({"slots":[{"id":"a","name":"Acme","line":"Tools"}]})");
    load(ads);
    EXPECT_EQ(names(ads), QStringList {QStringLiteral("a=Acme/Tools")});
    serve(200, R"({"slots":[]})");
    load(ads);
    EXPECT_EQ(names(ads), QStringList {QStringLiteral("a=Acme/Tools")})
        << "an empty list keeps the last cards";
    serve(500, "");
    load(ads);
    EXPECT_EQ(names(ads), QStringList {QStringLiteral("a=Acme/Tools")});
}

TEST_F(AdsStoreTest, FirstThreeSlotsWithTheirFallbacksAndPicturesInTheRail)
{
    const QString base = server.url().toString();
    serve(200,
          QStringLiteral(R"({"slots":[
        {"id":" acme ","name":"  Acme  ","line":" Fast tools for clips \n","image":"/img/a.png"},
        {"name":"   ","line":"Only $20 a month","image":"missing.png"},
        {"id":"","name":"Gamma","line":"MONTHLY deals","image":"%1/img/wide.png"},
        {"id":"d","name":"Delta"},
        {"id":"e","name":"Epsilon"}]})")
              .arg(base)
              .toUtf8());
    server.set(QStringLiteral("/img/a.png"), {200, "image/png", png(80, 60)});
    server.set(QStringLiteral("/img/wide.png"), {200, "image/png", png(400, 100)});

    AdsStore ads;
    SponsoredRail rail(ads);
    rail.resize(204, 600);
    rail.show();
    saveScreen(&rail, QStringLiteral("rail-placeholders"));
    load(ads);

    EXPECT_EQ(names(ads),
              (QStringList {QStringLiteral("acme=Acme/Fast tools for clips"),
                            QStringLiteral("2=This spot/Sponsored"),
                            QStringLiteral("3=Gamma/Sponsored")}));
    const QList<AdSlot> slots_ = ads.slotList();
    EXPECT_EQ(slots_[0].imageURL, QUrl(base + QStringLiteral("/img/a.png")));
    EXPECT_EQ(slots_[1].imageURL, QUrl(base + QStringLiteral("/missing.png")));
    EXPECT_EQ(slots_[2].imageURL, QUrl(base + QStringLiteral("/img/wide.png")));

    const QList<RailCard *> cards = rail.cards();
    ASSERT_EQ(cards.size(), 3);
    ASSERT_TRUE(waitUntil([&] {
        return cards[0]->picture() == RailCard::Picture::loaded &&
            cards[1]->picture() == RailCard::Picture::failed &&
            cards[2]->picture() == RailCard::Picture::loaded;
    }));
    EXPECT_GT(cards[0]->height(), 120) << "a picture adds its frame above the text";
    saveScreen(&rail, QStringLiteral("rail-cards-local"));

    // A slot without a picture has no frame at all.
    serve(200, R"({"slots":[{"id":"p","name":"Plain","line":"No picture"}]})");
    load(ads);
    ASSERT_EQ(rail.cards().size(), 1);
    EXPECT_EQ(rail.cards()[0]->picture(), RailCard::Picture::none);
    EXPECT_EQ(rail.cards()[0]->height(), 120);
}
