#pragma once

#include <cstddef>

namespace velmora::testing {

// Counts heap allocations made on the calling thread between start and stop. Linking it replaces
// the program's global operator new and delete; they count only on a thread that asked to.
class AllocationCounter {
  public:
    static void start();
    // The allocations since start on this thread.
    static std::size_t stop();
};

}  // namespace velmora::testing
