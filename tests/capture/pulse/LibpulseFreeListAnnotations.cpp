// libpulse recycles its packets, tag structures and memory blocks through lock-free free lists
// built on its own atomics. The library is not built for the thread checker, which cannot see
// those atomics: a packet that the tap's loop thread freed and a microphone-users query on
// another thread reuses looks like a race. Wrapping the free list's push and pop (libpulse calls
// them through its symbol table, so the executable's definitions win) tells the checker that
// whatever was done to an item before it was pushed happens before whatever is done after it is
// popped, which is exactly the list's guarantee. Nothing else is exempt.
#if defined(__SANITIZE_THREAD__)
#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>

struct pa_flist;

namespace {

template <class Function>
Function libpulseFunction(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int pa_flist_push(pa_flist* list, void* item) {
    using Push = int (*)(pa_flist*, void*);
    static const Push push = libpulseFunction<Push>("pa_flist_push");
    __tsan_release(item);
    return push(list, item);
}

extern "C" __attribute__((visibility("default"))) void* pa_flist_pop(pa_flist* list) {
    using Pop = void* (*)(pa_flist*);
    static const Pop pop = libpulseFunction<Pop>("pa_flist_pop");
    void* item = pop(list);
    if (item != nullptr) {
        __tsan_acquire(item);
    }
    return item;
}
#endif
