#include "config/UserFolders.h"

#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <vector>

namespace velmora::UserFolders {
namespace {

std::optional<std::filesystem::path> absoluteVariable(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr || value[0] != '/') return std::nullopt;
    return std::filesystem::path(value);
}

std::optional<std::filesystem::path> homeFromPasswordDatabase() {
    long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(suggested > 0 ? static_cast<std::size_t>(suggested) : 4096);
    for (;;) {
        passwd entry{};
        passwd* found = nullptr;
        int error = ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found);
        if (error == ERANGE && buffer.size() < (1u << 20)) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (error != 0 || found == nullptr || found->pw_dir == nullptr || found->pw_dir[0] != '/') {
            return std::nullopt;
        }
        return std::filesystem::path(found->pw_dir);
    }
}

std::optional<std::filesystem::path> baseFolder(const char* variable, const char* inHome) {
    if (auto configured = absoluteVariable(variable)) return configured;
    if (auto found = home()) return *found / inHome;
    return std::nullopt;
}

}  // namespace

std::optional<std::filesystem::path> home() {
    if (auto configured = absoluteVariable("HOME")) return configured;
    return homeFromPasswordDatabase();
}

std::optional<std::filesystem::path> configHome() {
    return baseFolder("XDG_CONFIG_HOME", ".config");
}

std::optional<std::filesystem::path> dataHome() {
    return baseFolder("XDG_DATA_HOME", ".local/share");
}

std::optional<std::filesystem::path> stateHome() {
    return baseFolder("XDG_STATE_HOME", ".local/state");
}

std::optional<std::filesystem::path> runtimeFolder() {
    return absoluteVariable("XDG_RUNTIME_DIR");
}

bool claimNoHomeNotice() {
    static std::atomic<bool> claimed{false};
    return !claimed.exchange(true);
}

}  // namespace velmora::UserFolders
