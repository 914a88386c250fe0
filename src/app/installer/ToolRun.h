#pragma once

#include <string>
#include <vector>

namespace velmora::AppInstaller {

// Runs a command-line tool to completion. Throws InstallerError when it cannot start or exits
// with another status than 0; the error's text is the tool's standard error, trimmed, or
// "<path> failed" when that is empty, and its code the exit status.
void run(const std::string& path, const std::vector<std::string>& arguments);

}  // namespace velmora::AppInstaller
