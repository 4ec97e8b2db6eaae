// Two service processes on one PostgreSQL database, each keeping its files in its own folder:
// everything a user's session rests on (pending sign-ins, tokens, rate counters) is in the
// records, so whichever process a request reaches answers the same.
#include "service/ServiceTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using nlohmann::json;

TEST(ServiceRecordsTest, TwoProcessesOnOneDatabaseShareSignInsTokensAndLimits)
{
    // Both start on a database nobody has used: the second finds the schema the first made.
    const std::string database = makeDatabase();
    OwnService first(database, "", {"--poll-rate", "6"});
    OwnService second(database, "", {"--poll-rate", "6"});
    const ServiceEndpoint &a = first.endpoint();
    const ServiceEndpoint &b = second.endpoint();
    const std::string email = addUser(a, "Pia", "pia's password");

    // A sign-in started through one process and finished through the other.
    const std::string code = json::parse(client(a)->Post("/v1/auth/device")->body)["code"];
    EXPECT_EQ(client(b)->Get("/v1/auth/device/" + code)->status, 204) << "pending on both";
    EXPECT_EQ(client(b)
                  ->Post("/device",
                         httplib::Params {
                             {"code", code}, {"email", email}, {"password", "pia's password"}})
                  ->status,
              200);
    const auto granted = client(a)->Get("/v1/auth/device/" + code);
    ASSERT_EQ(granted->status, 200);
    const std::string token = json::parse(granted->body)["token"];
    EXPECT_EQ(client(b)->Get("/v1/auth/device/" + code)->status, 410) << "handed out once";
    EXPECT_EQ(client(b)->Get("/v1/me", bearer(token))->status, 200);

    // The poll limit is one bucket for both: six polls in all, whichever process takes them.
    const std::string other = json::parse(client(b)->Post("/v1/auth/device")->body)["code"];
    int answered = 0;
    for (int i = 0; i < 8; ++i)
        answered += client(i % 2 ? a : b)->Get("/v1/auth/device/" + other)->status == 204;
    EXPECT_EQ(answered, 6 - 3) << "three polls of the first code were spent already";

    // A token revoked through one process's command is refused by the other at once.
    ASSERT_EQ(runCommand(a, {"token", "revoke", "-"}, token + "\n").status, 0);
    EXPECT_EQ(client(b)->Get("/v1/me", bearer(token))->status, 401);
}
