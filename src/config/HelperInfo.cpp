#include "config/HelperInfo.h"

#include "config/BuildConfig.h"

namespace velmora::HelperInfo {

std::string versionFrom(std::string_view buildVersion) {
    return buildVersion.empty() ? std::string("1.0.0") : std::string(buildVersion);
}

const std::string& version() {
    static const std::string cached = versionFrom(build::version);
    return cached;
}

const std::vector<std::string>& builtInOrigins() {
    static const std::vector<std::string> origins(build::builtInOrigins.begin(),
                                                  build::builtInOrigins.end());
    return origins;
}

}  // namespace velmora::HelperInfo
