#include "config/SerialQueue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

namespace velmora {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;

// Counts events and lets a test wait, without a time limit of its own, until enough happened.
class Counter {
  public:
    int increment() {
        std::lock_guard guard(mutex_);
        ++count_;
        changed_.notify_all();
        return count_;
    }
    void waitFor(int target) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return count_ >= target; });
    }
    int value() {
        std::lock_guard guard(mutex_);
        return count_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int count_ = 0;
};

// Waits until a delayed task later than everything before it has run on the queue.
void waitPast(SerialQueue& queue, SerialQueue::Duration delay) {
    std::promise<void> done;
    queue.runAfter(delay, [&] { done.set_value(); });
    done.get_future().get();
}

void checkedLocked(SerialQueue& queue) {
    VELMORA_ASSERT_ON_QUEUE(queue);
}

TEST(SerialQueue, RunsPostedWorkOneAtATimeInPostOrder) {
    SerialQueue queue("com.velmora.test.order");
    std::vector<int> order;
    for (int index = 0; index < 1000; ++index)
        queue.post([&order, index] { order.push_back(index); });
    queue.runAndWait([] {});
    ASSERT_EQ(order.size(), 1000u);
    for (int index = 0; index < 1000; ++index) EXPECT_EQ(order[index], index);
}

TEST(SerialQueue, WorkPostedFromManyThreadsRunsOnTheQueuesOneThread) {
    SerialQueue queue("com.velmora.test.threads");
    std::set<std::thread::id> threadsSeen;
    int total = 0;
    std::vector<std::thread> posters;
    for (int poster = 0; poster < 4; ++poster) {
        posters.emplace_back([&] {
            for (int index = 0; index < 250; ++index) {
                queue.post([&] {
                    threadsSeen.insert(std::this_thread::get_id());
                    ++total;  // unguarded on purpose: the queue is the guard
                });
            }
        });
    }
    for (auto& poster : posters) poster.join();
    queue.runAndWait([] {});
    EXPECT_EQ(total, 1000);
    EXPECT_EQ(threadsSeen.size(), 1u);
    EXPECT_EQ(threadsSeen.count(std::this_thread::get_id()), 0u);
}

TEST(SerialQueue, RunAndWaitRunsAfterEarlierWorkAndReturnsTheResult) {
    SerialQueue queue("com.velmora.test.sync");
    std::vector<int> order;
    queue.post([&] { order.push_back(1); });
    int result = queue.sync([&] {
        order.push_back(2);
        return 42;
    });
    EXPECT_EQ(result, 42);
    EXPECT_THAT(order, ElementsAre(1, 2));
    std::string text = queue.sync([] { return std::string("made on the queue"); });
    EXPECT_EQ(text, "made on the queue");
}

TEST(SerialQueue, RunAndWaitPassesTheWorksExceptionToTheCaller) {
    SerialQueue queue("com.velmora.test.exception");
    EXPECT_THROW(queue.runAndWait([] { throw std::runtime_error("broken"); }), std::runtime_error);
    try {
        queue.sync([]() -> int { throw std::invalid_argument("bad value"); });
        FAIL() << "no exception";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "bad value");
    }
    EXPECT_EQ(queue.sync([] { return 7; }), 7) << "the queue keeps working afterwards";
}

TEST(SerialQueue, RunAndWaitFromTheQueueItselfIsRefused) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
#ifndef NDEBUG
    EXPECT_DEATH(
        {
            SerialQueue queue("com.velmora.test.self");
            queue.runAndWait([&] { queue.runAndWait([] {}); });
        },
        "runAndWait called on its own queue com.velmora.test.self");
#else
    SerialQueue queue("com.velmora.test.self");
    EXPECT_THROW(queue.runAndWait([&] { queue.runAndWait([] {}); }), std::logic_error);
#endif
}

TEST(SerialQueue, RunAndWaitOnAStoppedQueueThrows) {
    SerialQueue queue("com.velmora.test.stopped");
    queue.stop();
    EXPECT_THROW(queue.runAndWait([] {}), std::logic_error);
}

TEST(SerialQueue, IsCurrentOnlyOnItsOwnThread) {
    SerialQueue queue("com.velmora.test.current");
    SerialQueue other("com.velmora.test.other");
    EXPECT_FALSE(queue.isCurrent());
    EXPECT_TRUE(queue.sync([&] { return queue.isCurrent(); }));
    EXPECT_FALSE(other.sync([&] { return queue.isCurrent(); }));
    EXPECT_FALSE(queue.sync([&] { return other.isCurrent(); }));
}

TEST(SerialQueue, DelayedWorkRunsInOrderOfItsDelays) {
    SerialQueue queue("com.velmora.test.after");
    std::vector<std::string> order;
    auto start = std::chrono::steady_clock::now();
    std::chrono::steady_clock::duration lastRan{};
    queue.runAfter(40ms, [&] {
        order.push_back("40 ms");
        lastRan = std::chrono::steady_clock::now() - start;
    });
    queue.runAfter(20ms, [&] { order.push_back("20 ms"); });
    queue.runAfter(0ms, [&] { order.push_back("at once"); });
    waitPast(queue, 60ms);
    EXPECT_THAT(order, ElementsAre("at once", "20 ms", "40 ms"));
    EXPECT_GE(lastRan, 40ms) << "never early";
}

TEST(SerialQueue, CancelledDelayedWorkNeverRuns) {
    SerialQueue queue("com.velmora.test.cancel-after");
    bool ran = false;
    auto timer = queue.runAfter(20ms, [&] { ran = true; });
    timer->cancel();
    EXPECT_TRUE(timer->isCancelled());
    waitPast(queue, 40ms);
    EXPECT_FALSE(ran);
}

TEST(SerialQueue, RepeatStopsForGoodWhenCancelledOnTheQueue) {
    SerialQueue queue("com.velmora.test.repeat");
    Counter firings;
    std::shared_ptr<QueueTimer> timer;
    std::mutex timerMutex;
    {
        std::lock_guard guard(timerMutex);
        timer = queue.repeat(0ms, 1ms, 0ms, [&] {
            if (firings.increment() == 5) {
                std::lock_guard guard(timerMutex);
                timer->cancel();
            }
        });
    }
    firings.waitFor(5);
    waitPast(queue, 20ms);
    EXPECT_EQ(firings.value(), 5);
}

TEST(SerialQueue, RepeatCancelledFromAnotherThreadFiresAtMostTheFiringUnderWay) {
    SerialQueue queue("com.velmora.test.repeat-other");
    Counter firings;
    auto timer = queue.repeat(1ms, 1ms, 1ms, [&] { firings.increment(); });
    firings.waitFor(3);
    timer->cancel();
    queue.runAndWait([] {});  // whatever firing was under way has finished now
    int afterCancel = firings.value();
    waitPast(queue, 20ms);
    EXPECT_EQ(firings.value(), afterCancel);
    EXPECT_TRUE(timer->isCancelled());
}

TEST(SerialQueue, RepeatWaitsForTheFirstDelayThenKeepsItsInterval) {
    SerialQueue queue("com.velmora.test.interval");
    Counter firings;
    std::vector<std::chrono::steady_clock::time_point> times;
    auto start = std::chrono::steady_clock::now();
    auto timer = queue.repeat(20ms, 10ms, 5ms, [&] {
        times.push_back(std::chrono::steady_clock::now());
        firings.increment();
    });
    firings.waitFor(3);
    timer->cancel();
    queue.runAndWait([] {});
    ASSERT_GE(times.size(), 3u);
    EXPECT_GE(times[0] - start, 20ms);
    EXPECT_GE(times[2] - start, 40ms) << "later firings follow the interval, never early";
}

TEST(SerialQueue, DestroyingAQueueWithPendingTimersIsSafe) {
    bool ran = false;
    {
        SerialQueue queue("com.velmora.test.pending");
        queue.runAfter(1h, [&] { ran = true; });
        queue.repeat(1h, 1h, 0ms, [&] { ran = true; });
        queue.post([] {});
    }
    EXPECT_FALSE(ran);
}

TEST(SerialQueue, CallerThreadQueueRunsItsWorkOnTheCallersThreadUntilStopped) {
    SerialQueue queue("com.velmora.test.main", SerialQueue::CallerThread{});
    std::vector<std::string> order;
    std::thread::id ranOn;
    bool wasCurrent = false;
    std::thread poster([&] {
        queue.post([&] {
            order.push_back("posted");
            ranOn = std::this_thread::get_id();
            wasCurrent = queue.isCurrent();
        });
        queue.runAfter(5ms, [&] {
            order.push_back("delayed");
            queue.stop();
        });
    });
    queue.run();
    poster.join();
    EXPECT_THAT(order, ElementsAre("posted", "delayed"));
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    EXPECT_TRUE(wasCurrent);
    EXPECT_FALSE(queue.isCurrent()) << "only inside the loop";
}

TEST(SerialQueue, CallerThreadQueueAnswersRunAndWaitFromOtherThreads) {
    SerialQueue queue("com.velmora.test.main-sync", SerialQueue::CallerThread{});
    int answer = 0;
    std::thread asker([&] {
        answer = queue.sync([&] { return queue.isCurrent() ? 1 : -1; });
        queue.post([&] { queue.stop(); });
    });
    queue.run();
    asker.join();
    EXPECT_EQ(answer, 1);
}

TEST(SerialQueue, StopFromTwoThreadsAtOnceIsSafe) {
    for (int round = 0; round < 20; ++round) {
        SerialQueue queue("com.velmora.test.stop");
        std::thread stopper([&] { queue.stop(); });
        queue.stop();
        stopper.join();
    }
}

TEST(SerialQueue, AssertOnQueuePassesOnTheQueue) {
    SerialQueue queue("com.velmora.test.assert-ok");
    queue.runAndWait([&] { checkedLocked(queue); });
    SUCCEED();
}

#ifndef NDEBUG
TEST(SerialQueue, AssertOnQueueAbortsOffTheQueueInDebugBuilds) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            SerialQueue queue("com.velmora.test.assert");
            checkedLocked(queue);
        },
        "checkedLocked must run on queue com.velmora.test.assert");
}
#endif

TEST(SerialQueue, TimerHeldPastItsQueueCanStillBeCancelledAndDropped) {
    std::shared_ptr<QueueTimer> once;
    std::shared_ptr<QueueTimer> repeating;
    {
        SerialQueue queue("com.velmora.test.outlived");
        once = queue.runAfter(std::chrono::hours(1), [] {});
        repeating = queue.repeat(std::chrono::hours(1), std::chrono::hours(1),
                                 std::chrono::seconds(0), [] {});
        queue.runAndWait([] {});  // both timers are armed now
    }
    once->cancel();
    EXPECT_TRUE(once->isCancelled());
    once.reset();
    repeating.reset();
}

}  // namespace
}  // namespace velmora
