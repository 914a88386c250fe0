#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace velmora {

// What the command line asks the process to do.
struct HelperArguments {
    enum class Action {
        runHelper,   // serve pages until SIGINT or SIGTERM
        settings,    // `settings ...`: show or edit the saved settings
        listen,      // `listen ...`: stand in for a page
        help,        // --help
        version,     // --version
        usageError,  // anything else
    };

    Action action = Action::runHelper;
    // The words after a command's name.
    std::vector<std::string> commandArguments;
    // --headless: serve without the tray, never touching the display.
    bool headless = false;
    bool noWelcome = false;
    bool noInstall = false;
    // What was wrong, for a usage error.
    std::string problem;

    static HelperArguments parse(const std::vector<std::string>& args);
};

// The usage text.
void printHelperUsage(std::ostream& stream);

// The exit code of a helper started while another copy of it runs for the same user.
inline constexpr int exitAlreadyRunning = 3;

// The whole process after main(): runs a command, or the helper itself without a tray until
// SIGINT or SIGTERM. Returns the exit code: 0 done, 2 a bad command line, or the command's own
// code.
int runHelperApplication(const std::vector<std::string>& args, std::ostream& out,
                         std::ostream& err);

// True when the arguments ask for the helper itself (not a command, help or a usage error)
// with a tray, and there is a display to show one on.
bool wantsTray(const HelperArguments& arguments);

}  // namespace velmora
