#include "app/installer/AppInstaller.h"

namespace velmora::AppInstaller {

// Until the installer lands, every launch goes on where it is.
bool offerToInstallIfNeeded(const std::vector<std::string>&) {
    return false;
}

}  // namespace velmora::AppInstaller
