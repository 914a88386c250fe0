#include "server/DescriptorLimit.h"

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "config/Log.h"

namespace velmora {

void ensureDescriptorsFor(std::size_t connections) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        log(std::string("Could not read the open file limit: ") + std::strerror(errno));
        return;
    }
    const rlim_t needed = connections + descriptorsBesideConnections;
    if (limit.rlim_cur >= needed) return;
    const std::string head = "Open file limit " + std::to_string(limit.rlim_cur) +
                             " is too low for " + std::to_string(connections) + " connections";
    if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max <= limit.rlim_cur) {
        log(head + "; the hard limit " + std::to_string(limit.rlim_max) + " allows no more");
        return;
    }
    const rlim_t raised =
        limit.rlim_max == RLIM_INFINITY ? needed : std::min<rlim_t>(needed, limit.rlim_max);
    limit.rlim_cur = raised;
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        log(head + "; could not raise it: " + std::strerror(errno));
        return;
    }
    log(head + "; raised it to " + std::to_string(raised));
}

}  // namespace velmora
