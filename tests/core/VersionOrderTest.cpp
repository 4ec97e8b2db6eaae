#include "core/VersionOrder.h"

#include <gtest/gtest.h>

// The program's update check and the service's choice of the newest release both ask this, so
// the cases where their two earlier copies disagreed ("+3", text that is not ASCII) are here too.
TEST(VersionOrderTest, VersionsCompareByTheirNumbersFromTheLeft)
{
    struct Case
    {
        const char *a, *b;
        bool newer;
    };
    for (const Case &c :
         {Case {"1.1.3", "1.1.3", false}, Case {"1.2", "1.1.3", true},
          Case {"2.0-beta", "1.1.3", true}, Case {"v2", "1.1.3", false},
          Case {"1.1.10", "1.1.3", true}, Case {"1.1.3", "1.1.10", false},
          Case {"1.1.3.0", "1.1.3", false}, Case {"1.1.3.1", "1.1.3", true},
          Case {"1.2.3-beta", "1.2", false}, Case {"1..2", "1.1", true}, Case {"", "0", false},
          Case {"1.2", "", true}, Case {"1.99999999999999999999", "1.5", false},
          Case {"1.+3", "1.2", false}, Case {"1.-3", "1", false}, Case {"1.\xd9\xa3", "1.2", false},
          Case {"1. 3", "1.2", false}, Case {"01.2", "1.1", true}})
        EXPECT_EQ(VersionOrder::isNewer(c.a, c.b), c.newer) << c.a << " against " << c.b;
}
