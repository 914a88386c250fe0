#pragma once

#include <string>
#include <vector>

#include "app/HelperApplication.h"

namespace velmora {

// The helper with its tray: runs the Qt event loop until Quit, SIGTERM (the session ending),
// SIGINT or SIGHUP, then shuts the server down. Returns the exit code (0).
int runTrayApplication(const HelperArguments& arguments, const std::vector<std::string>& args,
                       int& argc, char** argv);

}  // namespace velmora
