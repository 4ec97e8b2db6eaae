#include "capture/QueueDelivery.h"
#include "core/SerialQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

using namespace std::chrono_literals;

// A stalled consumer bounds what waits; close() waits for a running call and stops the queued
// ones; closing from inside a call neither deadlocks nor lets later calls through.
TEST(QueueDelivery, BoundsWaitingCallsAndClosesCleanly)
{
    SerialQueue queue("com.quillfen.vantrel.test", "vt-test");
    QueueDelivery delivery(queue, 3);
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<int> ran = 0;
    std::atomic<bool> runningWhenClosed = false;
    std::promise<void> firstStarted;
    std::future<void> started = firstStarted.get_future();

    // The first call blocks the queue; with it, three are in flight and a fourth is refused.
    ASSERT_TRUE(delivery.post([&] {
        firstStarted.set_value();
        released.wait();
        std::this_thread::sleep_for(50ms);
        ++ran;
    }));
    started.wait();
    EXPECT_TRUE(delivery.post([&] { ++ran; }));
    EXPECT_TRUE(delivery.post([&] { ++ran; }));
    EXPECT_FALSE(delivery.post([&] { ++ran; }));

    std::thread closer([&] {
        release.set_value();
        delivery.close();
        runningWhenClosed = ran.load() == 0;
    });
    closer.join();
    EXPECT_FALSE(runningWhenClosed) << "close() returned while a call was running";
    EXPECT_EQ(ran.load(), 1) << "queued calls ran after close()";
    EXPECT_FALSE(delivery.post([&] { ++ran; }));
    queue.sync([] {});
    EXPECT_EQ(ran.load(), 1);

    QueueDelivery inner(queue, 8);
    std::atomic<int> innerRan = 0;
    inner.post([&] {
        ++innerRan;
        inner.close();
    });
    inner.post([&] { ++innerRan; });
    queue.sync([] {});
    EXPECT_EQ(innerRan.load(), 1);
}
