#pragma once

namespace velmora::fuzzing {

// Fuzzing runs millions of inputs, many of which the helper logs. Before the first log line,
// this points the log folder at a private temporary folder whose log file is /dev/null, so a run
// neither fills the disk nor touches the user's own log.
void sendLogNowhere();

// The log writes on a queue of its own; waiting for it now and then keeps its backlog (and the
// memory it holds) bounded however fast inputs arrive.
void drainLogEvery(unsigned inputs);

// VELMORA_FUZZ_VERBOSE=1 makes the fuzzers describe what each input led to, for looking at
// single inputs (run a fuzzer with a file instead of a folder).
bool verbose();

}  // namespace velmora::fuzzing
