// libpulse hands packets and tag structures between connections through lock-free free lists
// built on its own atomics. The library is not built for the thread checker, which cannot see
// those hand-overs and reports a packet that one thread's connection freed and another's reuses
// (the tap's loop and a microphone-users query, say) as a race. Only the library's own copying
// into and out of such packets is exempt; our code, the callbacks libpulse calls included, is
// still checked.
#if defined(__SANITIZE_THREAD__)
extern "C" __attribute__((visibility("default"), used)) const char* __tsan_default_suppressions() {
    return "race:pa_iochannel_\n"
           "race:pa_srbchannel_\n"
           "race:pa_packet_\n"
           "race:pa_tagstruct_\n";
}
#endif
