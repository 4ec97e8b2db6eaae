#include "core/SerialQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <pthread.h>
#include <vector>

using namespace std::chrono_literals;

TEST(SerialQueue, RunsTasksInOrderOnOneNamedThreadAndHonoursDelaysAndCancels)
{
    std::vector<int> order;
    std::string threadName;
    std::thread::id firstThread;
    std::atomic<bool> cancelledRan = false;
    {
        SerialQueue queue("com.quillfen.vantrel.test", "vt-test-queue");
        EXPECT_EQ(queue.label(), "com.quillfen.vantrel.test");
        // The delayed task is queued first but must run after every immediate one.
        queue.asyncAfter(50ms, [&] { order.push_back(100); });
        auto cancelled = queue.asyncAfter(10ms, [&] { cancelledRan = true; });
        cancelled.cancel();
        for (int i = 0; i < 50; ++i)
            queue.async([&, i] {
                if (i == 0) {
                    char name[16] = {};
                    pthread_getname_np(pthread_self(), name, sizeof name);
                    threadName = name;
                    firstThread = std::this_thread::get_id();
                }
                EXPECT_EQ(std::this_thread::get_id(), firstThread);
                order.push_back(i);
            });
        queue.sync([] {});
        std::this_thread::sleep_for(120ms);
        queue.sync([&] { EXPECT_TRUE(queue.isCurrent()); });
        EXPECT_FALSE(queue.isCurrent());
    }
    ASSERT_EQ(order.size(), 51u);
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(order[size_t(i)], i);
    EXPECT_EQ(order.back(), 100);
    EXPECT_FALSE(cancelledRan);
    EXPECT_EQ(threadName, "vt-test-queue");
}

TEST(SerialQueue, DestructionRunsWhatWasQueuedButNotWhatIsStillDelayed)
{
    std::atomic<int> ran = 0;
    std::atomic<bool> delayedRan = false;
    {
        SerialQueue queue("q", "q");
        queue.asyncAfter(10s, [&] { delayedRan = true; });
        for (int i = 0; i < 100; ++i)
            queue.async([&] { ++ran; });
    }
    EXPECT_EQ(ran, 100);
    EXPECT_FALSE(delayedRan);
}
