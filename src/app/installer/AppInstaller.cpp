#include "app/installer/AppInstaller.h"

#include "app/installer/LaunchLocation.h"
#include "app/installer/QtInstallerFrontEnd.h"
#include "app/installer/SelfInstaller.h"
#include "config/RunningExecutable.h"

namespace velmora::AppInstaller {

bool offerToInstallIfNeeded(const std::vector<std::string>& args) {
    QtInstallerFrontEnd frontEnd(QtInstallerFrontEnd::scriptedAnswerFromEnvironment());
    return runInstallOffer(args, runningExecutable(), frontEnd, InstallOptions::standard());
}

}  // namespace velmora::AppInstaller
