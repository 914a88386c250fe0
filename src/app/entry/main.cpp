#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "app/HelperApplication.h"
#include "app/installer/CopyLock.h"
#include "app/installer/LaunchLocation.h"
#include "config/Log.h"
#include "config/RunningExecutable.h"
#ifdef VELMORA_WITH_TRAY
#include <cstdlib>

#include "app/DisplayProbe.h"
#include "app/TrayModule.h"
#include "config/Log.h"
#endif

namespace {

// A copy with a tray run from a disk image offers to install itself, which ends the copies
// already running; it must get as far as that offer.
bool mayOfferToInstall(const velmora::HelperArguments& arguments) {
#ifdef VELMORA_WITH_TRAY
    if (arguments.noInstall || !velmora::wantsTray(arguments)) return false;
    std::optional<std::filesystem::path> executable = velmora::runningExecutable();
    return executable && velmora::AppInstaller::isOnReadOnlyFileSystem(*executable);
#else
    (void)arguments;
    return false;  // without a tray there is no offer
#endif
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    velmora::HelperArguments arguments = velmora::HelperArguments::parse(args);
    // The helper itself, with or without its tray, is known to a later install by the lock it
    // holds for its whole life; commands never take it, so they are never ended by an install.
    // A second helper (started by hand beside the one started at login) would only fight the
    // first over the port: it finds the first by its lock and ends.
    std::unique_ptr<velmora::AppInstaller::CopyLock> copyLock;
    if (arguments.action == velmora::HelperArguments::Action::runHelper) {
        const std::filesystem::path folder = velmora::AppInstaller::runningCopiesFolder();
        if (mayOfferToInstall(arguments)) {
            copyLock = velmora::AppInstaller::CopyLock::take(folder);
        } else {
            auto start = velmora::AppInstaller::CopyLock::takeUnlessRunning(folder);
            if (!start.others.empty()) {
                const std::string message = "Velmora Audio Helper is already running (process " +
                                            std::to_string(start.others.front()) +
                                            "); this copy ends.";
                velmora::log(message);
                velmora::flushLog();
                std::cerr << "velmora-audio-helper: " << message << "\n";
                return velmora::exitAlreadyRunning;
            }
            copyLock = std::move(start.lock);
        }
    }
#ifdef VELMORA_WITH_TRAY
    // Qt is only loaded for the tray: headless runs and commands never map it.
    if (velmora::wantsTray(arguments)) {
        // A stale display name would make Qt end the process before any fallback.
        namespace DisplayProbe = velmora::DisplayProbe;
        DisplayProbe::Verdict display = DisplayProbe::probe(&std::getenv);
        if (!display.reachable) {
            // Still serve the pages: without its tray the helper does its main job headless.
            velmora::log(display.problem + "; serving without a tray");
        } else {
            if (!display.platform.empty()) ::setenv("QT_QPA_PLATFORM", display.platform.c_str(), 1);
            if (std::optional<int> code = velmora::TrayModule::run(argc, argv, std::cerr)) {
                return *code;
            }
            std::cerr << "velmora-audio-helper: running headless instead\n";
        }
    }
#endif
    return velmora::runHelperApplication(args, std::cout, std::cerr);
}
