#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace velmora {

class HelperSettings;

// `velmora-audio-helper settings ...`: shows and edits the saved settings, the way a person
// would otherwise edit the settings file by hand. `args` are the words after "settings".
// Returns the process exit code: 0 done, 1 the change could not be made (not found, not saved),
// 2 the command line itself was wrong (nothing is written then).
int runSettingsCommand(const std::vector<std::string>& args, HelperSettings& settings,
                       std::ostream& out, std::ostream& err);

}  // namespace velmora
