#pragma once

#include <filesystem>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// The tray front end lives in a module of its own, loaded only when the tray is wanted, so that
// the headless helper and the commands never map Qt: the libraries alone would add about ten
// megabytes of resident memory to every headless run.
namespace TrayModule {

// The module's file name and the C entry point it exports: int (int argc, char** argv).
inline constexpr const char* fileName = "velmora-tray.so";
inline constexpr const char* entryPoint = "velmora_run_tray";

// Where the module may be, in order: beside the executable (the build tree), then
// ../lib/velmora-audio-helper/modules/ from its folder (the package, the portable folder and a copy
// the installer made, which all keep that layout).
std::vector<std::filesystem::path> candidates(const std::filesystem::path& executable);

// Loads the module and runs the tray through it. Returns the tray's exit code, or nothing when
// the module could not be loaded, after telling `err` why.
std::optional<int> run(int argc, char** argv, std::ostream& err);

}  // namespace TrayModule
}  // namespace velmora
