#include "config/AudioKitConfig.h"

#include "access/OriginPolicy.h"
#include "config/HelperInfo.h"

namespace velmora {

AudioKitConfig AudioKitConfig::defaults() {
    return AudioKitConfig{
        .appName = "Velmora Audio Helper",
        .logSubsystem = HelperInfo::bundleId,
        .logFileName = "VelmoraAudioHelper.log",
        .product = std::nullopt,
        .port = [] { return HelperInfo::defaultPort; },
        .isOriginAllowed =
            [](const std::optional<std::string>& origin) {
                return OriginPolicy::isAllowed(origin, HelperInfo::builtInOrigins());
            },
    };
}

}  // namespace velmora
