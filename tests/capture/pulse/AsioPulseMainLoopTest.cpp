#include "capture/pulse/AsioPulseMainLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pulse/timeval.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "config/SerialQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

// A pipe whose read end libpulse's events watch.
class Pipe {
  public:
    Pipe() {
        int ends[2];
        if (::pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0) throw std::runtime_error("pipe");
        readEnd = ends[0];
        writeEnd = ends[1];
    }
    ~Pipe() {
        ::close(readEnd);
        ::close(writeEnd);
    }
    void write(std::size_t bytes) {
        std::vector<char> data(bytes, 'x');
        ASSERT_EQ(::write(writeEnd, data.data(), bytes), static_cast<ssize_t>(bytes));
    }
    int readEnd;
    int writeEnd;
};

struct timeval inFromNow(std::chrono::milliseconds delay) {
    struct timeval when {};
    pa_gettimeofday(&when);
    pa_timeval_add(&when, static_cast<pa_usec_t>(delay.count()) * PA_USEC_PER_MSEC);
    return when;
}

// Waits (generously: the machine may be loaded) until `done` holds.
template <class Predicate>
bool eventually(Predicate done, std::chrono::milliseconds timeout = 5000ms) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

class AsioPulseMainLoopTest : public ::testing::Test {
  protected:
    // Runs `work` with the api on the loop's thread, as libpulse would.
    template <class Work>
    auto onLoop(Work work) {
        return queue->sync([&] { return work(loop->api()); });
    }

    std::unique_ptr<SerialQueue> queue =
        std::make_unique<SerialQueue>("com.velmora.audiohelper.capture");
    std::unique_ptr<AsioPulseMainLoop> loop = std::make_unique<AsioPulseMainLoop>(queue->context());
};

// What an io callback saw, and how much it reads each time.
struct Reader {
    int fd = -1;
    std::size_t bytesPerCall = 1;
    std::atomic<int> calls{0};
    std::atomic<std::size_t> bytesRead{0};
    std::atomic<int> lastFlags{0};
    bool freeInside = false;
    pa_io_event* event = nullptr;
    std::atomic<int> destroyed{0};

    static void onIo(pa_mainloop_api* api, pa_io_event* event, int, pa_io_event_flags_t flags,
                     void* userdata) {
        auto* reader = static_cast<Reader*>(userdata);
        ++reader->calls;
        reader->lastFlags = flags;
        char buffer[64];
        const ssize_t got =
            ::read(reader->fd, buffer, std::min(sizeof buffer, reader->bytesPerCall));
        if (got > 0) reader->bytesRead += static_cast<std::size_t>(got);
        if (reader->freeInside) {
            api->io_free(event);
            reader->event = nullptr;
        }
    }
};

TEST_F(AsioPulseMainLoopTest, AnIoEventSeesDataLeftUnreadAgainAsLibpulsesOwnLoopWould) {
    Pipe pipe;
    Reader reader{.fd = pipe.readEnd, .bytesPerCall = 1};
    reader.event = onLoop([&](pa_mainloop_api* api) {
        return api->io_new(api, pipe.readEnd, PA_IO_EVENT_INPUT, Reader::onIo, &reader);
    });
    // Ten bytes read one per call: level-triggered, every byte comes out without new data.
    pipe.write(10);
    EXPECT_TRUE(eventually([&] { return reader.bytesRead == 10; }));
    EXPECT_EQ(reader.lastFlags & PA_IO_EVENT_INPUT, PA_IO_EVENT_INPUT);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(reader.calls, 10);
    onLoop([&](pa_mainloop_api* api) {
        api->io_free(reader.event);
        return 0;
    });
    EXPECT_EQ(loop->liveEvents(), 0u);
}

TEST_F(AsioPulseMainLoopTest, ADisabledIoEventIsNotCalledUntilEnabledAgain) {
    Pipe pipe;
    Reader reader{.fd = pipe.readEnd, .bytesPerCall = 64};
    reader.event = onLoop([&](pa_mainloop_api* api) {
        return api->io_new(api, pipe.readEnd, PA_IO_EVENT_NULL, Reader::onIo, &reader);
    });
    pipe.write(5);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(reader.calls, 0);
    // Data that came while disabled is seen on enabling, with no new data to trigger it.
    onLoop([&](pa_mainloop_api* api) {
        api->io_enable(reader.event, PA_IO_EVENT_INPUT);
        return 0;
    });
    EXPECT_TRUE(eventually([&] { return reader.bytesRead == 5; }));
    onLoop([&](pa_mainloop_api* api) {
        api->io_enable(reader.event, PA_IO_EVENT_NULL);
        return 0;
    });
    const int calls = reader.calls;
    pipe.write(5);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(reader.calls, calls);
    onLoop([&](pa_mainloop_api* api) {
        api->io_free(reader.event);
        return 0;
    });
}

TEST_F(AsioPulseMainLoopTest, AnIoEventMayFreeItselfInsideItsCallback) {
    Pipe pipe;
    Reader reader{.fd = pipe.readEnd, .bytesPerCall = 1, .freeInside = true};
    onLoop([&](pa_mainloop_api* api) {
        reader.event = api->io_new(api, pipe.readEnd, PA_IO_EVENT_INPUT, Reader::onIo, &reader);
        api->io_set_destroy(reader.event, [](pa_mainloop_api*, pa_io_event*, void* userdata) {
            ++static_cast<Reader*>(userdata)->destroyed;
        });
        return 0;
    });
    pipe.write(3);
    EXPECT_TRUE(eventually([&] { return reader.calls == 1; }));
    std::this_thread::sleep_for(100ms);
    // Freed in the first call: the two bytes left never reach it.
    EXPECT_EQ(reader.calls, 1);
    EXPECT_EQ(reader.destroyed, 1);
    EXPECT_EQ(loop->liveEvents(), 0u);
}

// Counts the firings of a time event and optionally re-arms it from inside.
struct Alarm {
    std::atomic<int> firings{0};
    std::atomic<int> restartsLeft{0};
    std::chrono::milliseconds interval{20};
    static void onTime(pa_mainloop_api* api, pa_time_event* event, const struct timeval*,
                       void* userdata) {
        auto* alarm = static_cast<Alarm*>(userdata);
        ++alarm->firings;
        if (alarm->restartsLeft > 0) {
            --alarm->restartsLeft;
            const struct timeval next = inFromNow(alarm->interval);
            api->time_restart(event, &next);
        }
    }
};

TEST_F(AsioPulseMainLoopTest, ATimeEventFiresOnceAndMayBeRestartedFromItsCallback) {
    Alarm alarm;
    alarm.restartsLeft = 2;
    pa_time_event* event = onLoop([&](pa_mainloop_api* api) {
        const struct timeval when = inFromNow(20ms);
        return api->time_new(api, &when, Alarm::onTime, &alarm);
    });
    EXPECT_TRUE(eventually([&] { return alarm.firings == 3; }));
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(alarm.firings, 3);
    onLoop([&](pa_mainloop_api* api) {
        api->time_free(event);
        return 0;
    });
}

TEST_F(AsioPulseMainLoopTest, RestartingATimeEventMovesItsDeadlineAndNullDisablesIt) {
    Alarm alarm;
    const auto started = std::chrono::steady_clock::now();
    pa_time_event* event = onLoop([&](pa_mainloop_api* api) {
        const struct timeval soon = inFromNow(30ms);
        pa_time_event* made = api->time_new(api, &soon, Alarm::onTime, &alarm);
        const struct timeval later = inFromNow(300ms);
        api->time_restart(made, &later);
        return made;
    });
    EXPECT_TRUE(eventually([&] { return alarm.firings == 1; }));
    EXPECT_GE(std::chrono::steady_clock::now() - started, 290ms);

    onLoop([&](pa_mainloop_api* api) {
        const struct timeval soon = inFromNow(30ms);
        api->time_restart(event, &soon);
        api->time_restart(event, nullptr);
        return 0;
    });
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(alarm.firings, 1);
    onLoop([&](pa_mainloop_api* api) {
        api->time_free(event);
        return 0;
    });
}

TEST_F(AsioPulseMainLoopTest, ATimeEventFreedBeforeItsDeadlineNeverFires) {
    Alarm alarm;
    onLoop([&](pa_mainloop_api* api) {
        const struct timeval soon = inFromNow(20ms);
        api->time_free(api->time_new(api, &soon, Alarm::onTime, &alarm));
        return 0;
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(alarm.firings, 0);
    EXPECT_EQ(loop->liveEvents(), 0u);
}

// A defer event that disables or frees itself after a number of runs.
struct Deferred {
    std::atomic<int> runs{0};
    int disableAfter = 0;
    int freeAfter = 0;
    static void onDefer(pa_mainloop_api* api, pa_defer_event* event, void* userdata) {
        auto* deferred = static_cast<Deferred*>(userdata);
        const int runs = ++deferred->runs;
        if (runs == deferred->disableAfter) api->defer_enable(event, 0);
        if (runs == deferred->freeAfter) api->defer_free(event);
    }
};

TEST_F(AsioPulseMainLoopTest, AnEnabledDeferEventRunsOnEveryTurnUntilDisabled) {
    Deferred deferred{.disableAfter = 5};
    pa_defer_event* event = onLoop(
        [&](pa_mainloop_api* api) { return api->defer_new(api, Deferred::onDefer, &deferred); });
    EXPECT_TRUE(eventually([&] { return deferred.runs == 5; }));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(deferred.runs, 5);
    // Enabled again, it runs again; disabled at once, it does not.
    onLoop([&](pa_mainloop_api* api) {
        deferred.disableAfter = 6;  // read by the callback, on the loop's thread
        api->defer_enable(event, 1);
        return 0;
    });
    EXPECT_TRUE(eventually([&] { return deferred.runs == 6; }));
    onLoop([&](pa_mainloop_api* api) {
        api->defer_enable(event, 1);
        api->defer_enable(event, 0);
        return 0;
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(deferred.runs, 6);
    onLoop([&](pa_mainloop_api* api) {
        api->defer_free(event);
        return 0;
    });
}

TEST_F(AsioPulseMainLoopTest, ADeferEventMayFreeItselfInsideItsCallback) {
    Deferred deferred{.freeAfter = 3};
    onLoop([&](pa_mainloop_api* api) { return api->defer_new(api, Deferred::onDefer, &deferred); });
    EXPECT_TRUE(eventually([&] { return deferred.runs == 3; }));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(deferred.runs, 3);
    EXPECT_EQ(loop->liveEvents(), 0u);
}

TEST_F(AsioPulseMainLoopTest, WhenTheQueueEndsFirstNothingFiresAndFreeingStaysSafe) {
    Pipe pipe;
    Reader reader{.fd = pipe.readEnd, .bytesPerCall = 1};
    Alarm alarm;
    Deferred deferred;
    pa_io_event* io = nullptr;
    pa_time_event* time = nullptr;
    pa_defer_event* defer = nullptr;
    onLoop([&](pa_mainloop_api* api) {
        io = api->io_new(api, pipe.readEnd, PA_IO_EVENT_INPUT, Reader::onIo, &reader);
        const struct timeval later = inFromNow(200ms);
        time = api->time_new(api, &later, Alarm::onTime, &alarm);
        defer = api->defer_new(api, Deferred::onDefer, &deferred);
        api->defer_enable(defer, 0);
        return 0;
    });
    queue.reset();
    EXPECT_TRUE(loop->isLoopGone());
    pipe.write(4);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(reader.calls, 0);
    EXPECT_EQ(alarm.firings, 0);
    // libpulse may still use and free its events (a context released after its queue).
    pa_mainloop_api* api = loop->api();
    api->io_enable(io, PA_IO_EVENT_NULL);
    const struct timeval soon = inFromNow(10ms);
    api->time_restart(time, &soon);
    api->defer_enable(defer, 1);
    api->io_free(io);
    api->time_free(time);
    api->defer_free(defer);
    EXPECT_EQ(loop->liveEvents(), 0u);
    // New events are inert, and work handed to the loop runs on the caller's thread.
    api->defer_free(api->defer_new(api, Deferred::onDefer, &deferred));
    bool ran = false;
    loop->runAndWait([&] { ran = true; });
    EXPECT_TRUE(ran);
    EXPECT_EQ(deferred.runs, 0);
}

TEST_F(AsioPulseMainLoopTest, RunAndWaitRunsOnTheLoopAndAtOnceFromInsideIt) {
    bool onLoopThread = false;
    bool nestedRan = false;
    loop->runAndWait([&] {
        onLoopThread = loop->isLoopThread();
        loop->runAndWait([&] { nestedRan = true; });
    });
    EXPECT_TRUE(onLoopThread);
    EXPECT_TRUE(nestedRan);
    EXPECT_FALSE(loop->isLoopThread());
}

}  // namespace
}  // namespace velmora
