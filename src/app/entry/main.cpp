#include <iostream>
#include <string>
#include <vector>

#include "app/HelperApplication.h"
#ifdef VELMORA_WITH_TRAY
#include "app/TrayModule.h"
#endif

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
#ifdef VELMORA_WITH_TRAY
    // Qt is only loaded for the tray: headless runs and commands never map it.
    velmora::HelperArguments arguments = velmora::HelperArguments::parse(args);
    if (velmora::wantsTray(arguments)) {
        if (std::optional<int> code = velmora::TrayModule::run(argc, argv, std::cerr)) {
            return *code;
        }
        // Still serve the pages: without its tray the helper does its main job headless.
        std::cerr << "velmora-audio-helper: running headless instead\n";
    }
#endif
    return velmora::runHelperApplication(args, std::cout, std::cerr);
}
