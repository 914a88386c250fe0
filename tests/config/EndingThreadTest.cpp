#include "config/EndingThread.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <thread>

namespace velmora {
namespace {

using namespace std::chrono_literals;

// Tells, when destroyed, which thread destroyed it.
class EndReporter {
  public:
    explicit EndReporter(std::promise<std::thread::id> ended) : ended_(std::move(ended)) {}
    ~EndReporter() { ended_.set_value(std::this_thread::get_id()); }

  private:
    std::promise<std::thread::id> ended_;
};

TEST(EndingThreadTest, AnObjectHandedOverIsEndedOnAnotherThread) {
    std::promise<std::thread::id> ended;
    std::future<std::thread::id> endedOn = ended.get_future();
    endOnEndingThread(std::make_shared<EndReporter>(std::move(ended)));
    EXPECT_NE(endedOn.get(), std::this_thread::get_id());
}

// Hands a second object over from its own destructor, as a server does with its queue.
class HandsOverWhenEnded {
  public:
    explicit HandsOverWhenEnded(std::shared_ptr<EndReporter> next) : next_(std::move(next)) {}
    ~HandsOverWhenEnded() { endOnEndingThread(std::move(next_)); }

  private:
    std::shared_ptr<EndReporter> next_;
};

TEST(EndingThreadTest, AnObjectHandedOverWhileAnotherIsEndingIsEndedToo) {
    std::promise<std::thread::id> ended;
    std::future<std::thread::id> endedOn = ended.get_future();
    endOnEndingThread(
        std::make_shared<HandsOverWhenEnded>(std::make_shared<EndReporter>(std::move(ended))));
    EXPECT_NE(endedOn.get(), std::this_thread::get_id());
}

// Ends only once the test lets it: handing it over must return before it has ended.
class EndsWhenLetGo {
  public:
    explicit EndsWhenLetGo(std::shared_future<void> letGo, std::promise<void> ended)
        : letGo_(std::move(letGo)), ended_(std::move(ended)) {}
    ~EndsWhenLetGo() {
        letGo_.wait();
        ended_.set_value();
    }

  private:
    std::shared_future<void> letGo_;
    std::promise<void> ended_;
};

TEST(EndingThreadTest, HandingOverReturnsBeforeTheObjectHasEnded) {
    std::promise<void> letGo;
    std::promise<void> ended;
    std::future<void> endedSignal = ended.get_future();
    endOnEndingThread(
        std::make_shared<EndsWhenLetGo>(letGo.get_future().share(), std::move(ended)));
    EXPECT_EQ(endedSignal.wait_for(0s), std::future_status::timeout);
    letGo.set_value();
    endedSignal.get();
}

// Says on standard error that it ended, a while after it started ending: a process that exited
// without waiting for the ending thread would never say it.
class SlowToEnd {
  public:
    explicit SlowToEnd(std::promise<void> endingStarted)
        : endingStarted_(std::move(endingStarted)) {}
    ~SlowToEnd() {
        endingStarted_.set_value();
        std::this_thread::sleep_for(300ms);
        std::fputs("the object handed over has ended\n", stderr);
    }

  private:
    std::promise<void> endingStarted_;
};

TEST(EndingThreadDeathTest, TheProcessExitsOnlyAfterWhatWasHandedOverHasEnded) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            std::promise<void> endingStarted;
            std::future<void> started = endingStarted.get_future();
            endOnEndingThread(std::make_shared<SlowToEnd>(std::move(endingStarted)));
            // The ending thread is inside the object's destructor when the process exits.
            started.wait();
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "the object handed over has ended");
}

}  // namespace
}  // namespace velmora
