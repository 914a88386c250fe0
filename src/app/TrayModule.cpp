#include "app/TrayModule.h"

#include <dlfcn.h>

#include <ostream>
#include <system_error>

#include "config/RunningExecutable.h"

namespace velmora::TrayModule {

namespace {

// Installed, the module sits in a folder of its own below the package's private library folder:
// a shared object directly in lib/<package>/ would have the package run ldconfig on every
// install and removal, for a module that no program links.
std::filesystem::path installedFolder(const std::filesystem::path& executable) {
    return executable.parent_path().parent_path() / "lib" / "velmora-audio-helper" / "modules";
}

}  // namespace

std::vector<std::filesystem::path> candidates(const std::filesystem::path& executable) {
    std::filesystem::path folder = executable.parent_path();
    return {folder / fileName, installedFolder(executable) / fileName};
}

std::optional<int> run(int argc, char** argv, std::ostream& err) {
    std::optional<std::filesystem::path> running = runningExecutable();
    if (!running) {
        err << "velmora-audio-helper: the tray could not be loaded: the program's own path is "
               "unknown\n";
        return std::nullopt;
    }
    const std::filesystem::path& executable = *running;
    std::error_code error;
    std::string lastProblem = "no " + std::string(fileName) + " beside the program or in " +
                              installedFolder(executable).string();
    for (const std::filesystem::path& candidate : candidates(executable)) {
        if (!std::filesystem::exists(candidate, error)) continue;
        // Never closed: the tray's code runs until the process exits.
        void* handle = ::dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            lastProblem = ::dlerror();
            continue;
        }
        auto entry = reinterpret_cast<int (*)(int, char**)>(::dlsym(handle, entryPoint));
        if (entry == nullptr) {
            lastProblem = candidate.string() + " has no " + entryPoint;
            continue;
        }
        return entry(argc, argv);
    }
    err << "velmora-audio-helper: the tray could not be loaded: " << lastProblem << "\n";
    return std::nullopt;
}

}  // namespace velmora::TrayModule
