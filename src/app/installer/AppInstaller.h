#pragma once

#include <string>
#include <vector>

namespace velmora {

// Installs a copy started from a read-only place (the portable folder on a mounted disk image)
// and hands over to the installed copy. The tray's launch sequence asks it first, once its
// QApplication exists.
namespace AppInstaller {

// True when an installed copy is about to start and the caller must exit now; false when the
// caller should go on launching. `args` are the process's arguments ("--no-install" skips it).
// In a build with test switches (never a release), VELMORA_INSTALLER_ANSWER=install (or
// not-now) in the environment answers the offer without a dialog, for tests of the hand-over.
bool offerToInstallIfNeeded(const std::vector<std::string>& args);

}  // namespace AppInstaller

}  // namespace velmora
