#include "server/HostHeader.h"

#include <boost/beast/core/string.hpp>
#include <string>

namespace velmora {

bool isOwnHost(std::string_view host, std::uint16_t port) {
    const std::string portSuffix = ":" + std::to_string(port);
    std::string_view name = host;
    if (name.ends_with(portSuffix)) {
        name.remove_suffix(portSuffix.size());
    } else if (port != 80 || name.ends_with(":")) {
        // Clients leave out only the default port (RFC 9110), and write it no other way.
        return false;
    }
    return name == "127.0.0.1" || name == "[::1]" || boost::beast::iequals(name, "localhost");
}

}  // namespace velmora
