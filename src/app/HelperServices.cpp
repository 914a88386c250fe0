#include "app/HelperServices.h"

#include <utility>

namespace velmora {

ServerPolicy serverPolicyFrom(HelperSettings& settings) {
    return {
        .port = [&settings] { return settings.port(); },
        .isOriginAllowed =
            [&settings](const std::optional<std::string>& origin) {
                return settings.isOriginAllowed(origin);
            },
    };
}

HelperServices makeHelperServices(SerialQueue& mainQueue, HelperSettings& settings) {
    PlatformBackends backends = makePlatformBackends();
    auto server = HelperServer::create(std::move(backends.tap), backends.permission,
                                       std::move(backends.microphoneUsers), mainQueue,
                                       serverPolicyFrom(settings));
    return {.permission = std::move(backends.permission), .server = std::move(server)};
}

}  // namespace velmora
