#include "config/EndingThread.h"

#include "config/ThreadSafety.h"

#include <condition_variable>
#include <deque>
#include <thread>
#include <utility>

namespace velmora {
namespace {

class EndingThread {
  public:
    EndingThread() : thread_([this] { endAll(); }) {}

    ~EndingThread() {
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
    bool exiting_ VELMORA_GUARDED_BY(mutex_) = false;
    std::thread thread_;
};

}  // namespace

void endOnEndingThread(std::shared_ptr<void> object) {
    static EndingThread endingThread;
    endingThread.end(std::move(object));
}

}  // namespace velmora
