#include <iostream>
#include <string>
#include <vector>

#include "app/HelperApplication.h"
#ifdef VELMORA_WITH_TRAY
#include "app/tray/TrayApplication.h"
#endif

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
#ifdef VELMORA_WITH_TRAY
    // Qt is only touched for the tray: headless runs and commands never load its plugins.
    velmora::HelperArguments arguments = velmora::HelperArguments::parse(args);
    if (velmora::wantsTray(arguments)) {
        return velmora::runTrayApplication(arguments, args, argc, argv);
    }
#endif
    return velmora::runHelperApplication(args, std::cout, std::cerr);
}
