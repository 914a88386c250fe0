#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "app/HelperApplication.h"
#include "app/installer/CopyLock.h"
#ifdef VELMORA_WITH_TRAY
#include <cstdlib>

#include "app/DisplayProbe.h"
#include "app/TrayModule.h"
#include "config/Log.h"
#endif

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    velmora::HelperArguments arguments = velmora::HelperArguments::parse(args);
    // The helper itself, with or without its tray, is known to a later install by the lock it
    // holds for its whole life; commands never take it, so they are never ended by an install.
    std::unique_ptr<velmora::AppInstaller::CopyLock> copyLock;
    if (arguments.action == velmora::HelperArguments::Action::runHelper) {
        copyLock =
            velmora::AppInstaller::CopyLock::take(velmora::AppInstaller::runningCopiesFolder());
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
