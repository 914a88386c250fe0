#pragma once

#include <filesystem>
#include <optional>

namespace velmora::UserFolders {

// The per-user folders every part of the helper keeps its files in, found one way for the whole
// program. A base folder is its XDG variable when that is an absolute path, otherwise the
// conventional folder in the home folder. The home folder is $HOME when absolute, otherwise the
// user's entry in the password database. Without a home folder there is no folder at all: the
// helper then never falls back to a shared or relative place.
std::optional<std::filesystem::path> home();
std::optional<std::filesystem::path> configHome();  // $XDG_CONFIG_HOME, ~/.config
std::optional<std::filesystem::path> dataHome();    // $XDG_DATA_HOME, ~/.local/share
std::optional<std::filesystem::path> stateHome();   // $XDG_STATE_HOME, ~/.local/state
// $XDG_RUNTIME_DIR when absolute; there is no fallback for it.
std::optional<std::filesystem::path> runtimeFolder();

// The one line that says the helper found no home folder.
inline constexpr const char* noHomeNotice =
    "No home folder found (HOME is unset or relative and the user has no entry with one): "
    "settings are kept in memory only and the log goes to the system log only.";

// True for the first caller only, so the notice above is logged once per process.
bool claimNoHomeNotice();

}  // namespace velmora::UserFolders
