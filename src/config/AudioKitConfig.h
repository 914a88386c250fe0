#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace velmora {

// The process-wide configuration record: names plus the two replaceable policy hooks.
struct AudioKitConfig {
    using PortHook = std::function<std::uint16_t()>;
    using OriginHook = std::function<bool(const std::optional<std::string>& origin)>;

    std::string appName;
    std::string logSubsystem;
    std::string logFileName;
    std::optional<std::string> product;
    PortHook port;
    OriginHook isOriginAllowed;

    // The defaults: built-in port and built-in origins only.
    static AudioKitConfig defaults();
};

}  // namespace velmora
