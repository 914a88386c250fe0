// The tray module's only exported symbol: the executable finds it with dlsym once it has
// decided that the tray is wanted.
#include <string>
#include <vector>

#include "app/HelperApplication.h"
#include "app/tray/TrayApplication.h"

extern "C" __attribute__((visibility("default"))) int velmora_run_tray(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    return velmora::runTrayApplication(velmora::HelperArguments::parse(args), args, argc, argv);
}
