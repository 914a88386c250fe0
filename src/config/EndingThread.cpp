#include "config/EndingThread.h"

#include "config/ThreadSafety.h"

#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <thread>
#include <utility>
#include <vector>

namespace velmora {
namespace {

class EndingThread {
  public:
    EndingThread() : thread_([this] { endAll(); }) {}

    // At exit: ends what was handed over, then joins the thread.
    void finish() {
        {
            MutexLock lock(mutex_);
            exiting_ = true;
        }
        waiting_.notify_one();
        thread_.join();
    }

    void end(std::shared_ptr<void> object) {
        {
            MutexLock lock(mutex_);
            if (exiting_) {
                // Handed over after the exit began: kept, never ended. Its thread cannot be
                // joined from the thread it runs on, and the process is ending anyway.
                leftAtExit_.push_back(std::move(object));
                return;
            }
            objects_.push_back(std::move(object));
        }
        waiting_.notify_one();
    }

  private:
    void endAll() {
        mutex_.lock();
        for (;;) {
            while (!exiting_ && objects_.empty()) waiting_.wait(mutex_);
            if (objects_.empty()) break;
            std::shared_ptr<void> object = std::move(objects_.front());
            objects_.pop_front();
            // Ended outside the lock: its destructor may hand another object over.
            mutex_.unlock();
            object.reset();
            mutex_.lock();
        }
        mutex_.unlock();
    }

    Mutex mutex_;
    std::condition_variable_any waiting_;
    std::deque<std::shared_ptr<void>> objects_ VELMORA_GUARDED_BY(mutex_);
    std::vector<std::shared_ptr<void>> leftAtExit_ VELMORA_GUARDED_BY(mutex_);
    bool exiting_ VELMORA_GUARDED_BY(mutex_) = false;
    std::thread thread_;
};

EndingThread& endingThread() {
    // Never destroyed, so that a hand-over racing with the exit meets a living object; the exit
    // handler, registered when the thread starts, ends and joins it ahead of the static objects
    // made before it.
    static EndingThread* const instance = [] {
        auto* thread = new EndingThread;
        std::atexit([] { endingThread().finish(); });
        return thread;
    }();
    return *instance;
}

}  // namespace

void endOnEndingThread(std::shared_ptr<void> object) {
    endingThread().end(std::move(object));
}

}  // namespace velmora
