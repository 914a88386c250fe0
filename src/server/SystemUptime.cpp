#include "server/SystemUptime.h"

#include <time.h>

#include <chrono>

namespace velmora {

double systemUptimeSeconds() {
    timespec now{};
    if (clock_gettime(CLOCK_BOOTTIME, &now) == 0) {
        return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace velmora
