#pragma once

// Annotations for clang's thread-safety analysis (-Wthread-safety): they say which lock or queue
// owns a piece of state, and which functions may only run while holding it. They expand to
// nothing on other compilers, which check none of it.

#include <mutex>

#if defined(__clang__)
#define VELMORA_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VELMORA_THREAD_ANNOTATION(x)
#endif

// A type whose instances are held (a lock, a queue whose thread is running).
#define VELMORA_CAPABILITY(name) VELMORA_THREAD_ANNOTATION(capability(name))
// An object that holds a capability for its lifetime (a lock guard).
#define VELMORA_SCOPED_CAPABILITY VELMORA_THREAD_ANNOTATION(scoped_lockable)
// State read or written only while the capability is held.
#define VELMORA_GUARDED_BY(capability) VELMORA_THREAD_ANNOTATION(guarded_by(capability))
// A pointer whose target is read or written only while the capability is held.
#define VELMORA_PT_GUARDED_BY(capability) VELMORA_THREAD_ANNOTATION(pt_guarded_by(capability))
// A function its caller must call with the capability held.
#define VELMORA_REQUIRES(...) VELMORA_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
// A function its caller must call without the capability (it takes it itself).
#define VELMORA_EXCLUDES(...) VELMORA_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define VELMORA_ACQUIRE(...) VELMORA_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define VELMORA_RELEASE(...) VELMORA_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
// A function that returns only when the capability is held (or aborts), such as a check that
// code runs on its owner's queue.
#define VELMORA_ASSERT_CAPABILITY(capability) \
    VELMORA_THREAD_ANNOTATION(assert_capability(capability))
// For the few functions whose locking the analysis cannot follow; each says why.
#define VELMORA_NO_THREAD_SAFETY_ANALYSIS VELMORA_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace velmora {

// std::mutex as a capability the analysis knows.
class VELMORA_CAPABILITY("mutex") Mutex {
  public:
    void lock() VELMORA_ACQUIRE() { mutex_.lock(); }
    void unlock() VELMORA_RELEASE() { mutex_.unlock(); }

  private:
    std::mutex mutex_;
};

// Holds a Mutex for the scope, as std::lock_guard does.
class VELMORA_SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) VELMORA_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() VELMORA_RELEASE() { mutex_.unlock(); }

    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& mutex_;
};

}  // namespace velmora
