#include "config/HelperSettings.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <nlohmann/json.hpp>
#include <system_error>

#include "access/OriginPolicy.h"
#include "config/AudioKit.h"
#include "config/HelperInfo.h"
#include "config/Log.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

constexpr const char* portKey = "port";
constexpr const char* extraOriginsKey = "extraOrigins";
constexpr const char* hasShownWelcomeKey = "hasShownWelcome";

std::string errnoText(int error) {
    return std::error_code(error, std::generic_category()).message();
}

// The file's content as an object; a missing or blank file is an empty one. `problem` says why an
// existing file can't be used, and then `object` is empty.
struct Loaded {
    Json object = Json::object();
    bool exists = false;
    std::optional<std::string> problem;
};

Loaded load(const fs::path& file) {
    Loaded loaded;
    int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        if (errno != ENOENT && errno != ENOTDIR) {
            loaded.exists = true;
            loaded.problem = "it can't be opened: " + errnoText(errno);
        }
        return loaded;
    }
    loaded.exists = true;
    std::string text;
    char buffer[8192];
    for (;;) {
        ssize_t count = ::read(descriptor, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            loaded.problem = "it can't be read: " + errnoText(errno);
            ::close(descriptor);
            return loaded;
        }
        if (count == 0) break;
        text.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(descriptor);

    if (text.find_first_not_of(" \t\r\n") == std::string::npos) return loaded;
    try {
        Json parsed = Json::parse(text);
        if (!parsed.is_object()) {
            loaded.problem = "it holds JSON but not an object";
            return loaded;
        }
        loaded.object = std::move(parsed);
    } catch (const Json::exception& error) {
        std::string reason = error.what();
        // Drop the library's "[json.exception.parse_error.101] " tag; the rest reads well.
        if (auto end = reason.find("] "); reason.starts_with("[") && end != std::string::npos) {
            reason.erase(0, end + 2);
        }
        loaded.problem = "it is not valid JSON: " + reason;
    }
    return loaded;
}

std::optional<std::int64_t> integerValue(const Json& object, const char* key) {
    auto found = object.find(key);
    if (found == object.end() || !found->is_number_integer()) return std::nullopt;
    if (found->is_number_unsigned()) {
        auto value = found->get<std::uint64_t>();
        if (value > static_cast<std::uint64_t>(INT64_MAX)) return INT64_MAX;
        return static_cast<std::int64_t>(value);
    }
    return found->get<std::int64_t>();
}

// The array when it is present and every element is a string; otherwise unset (empty).
std::vector<std::string> stringArrayValue(const Json& object, const char* key) {
    auto found = object.find(key);
    if (found == object.end() || !found->is_array()) return {};
    std::vector<std::string> strings;
    strings.reserve(found->size());
    for (const Json& element : *found) {
        if (!element.is_string()) return {};
        strings.push_back(element.get<std::string>());
    }
    return strings;
}

std::string localStampForFileName() {
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &local);
    return text;
}

// The file a write replaces: a symbolic link (a dotfiles checkout, say) keeps pointing at it.
fs::path writeTarget(const fs::path& file) {
    std::error_code error;
    if (fs::is_symlink(fs::symlink_status(file, error))) {
        fs::path resolved = fs::weakly_canonical(file, error);
        if (!error) return resolved;
    }
    return file;
}

// Moves an unusable file to "<name>.unreadable-<time>" beside it; the path it went to.
std::optional<fs::path> moveAside(const fs::path& file, std::string& failure) {
    const std::string base = file.string() + ".unreadable-" + localStampForFileName();
    fs::path aside = base;
    std::error_code error;
    for (int attempt = 2; fs::exists(fs::symlink_status(aside, error)); ++attempt) {
        aside = base + "-" + std::to_string(attempt);
    }
    if (::rename(file.c_str(), aside.c_str()) != 0) {
        failure = "the unusable file couldn't be moved aside: " + errnoText(errno);
        return std::nullopt;
    }
    return aside;
}

bool writeAll(int descriptor, const std::string& text) {
    const char* data = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        ssize_t written = ::write(descriptor, data, left);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        data += written;
        left -= static_cast<std::size_t>(written);
    }
    return true;
}

// Replaces `target` with `text` so that a reader sees either the old or the new file, never a
// part: a temporary file in the same folder, flushed to disk, then renamed over it.
bool replaceFile(const fs::path& target, const std::string& text, std::string& failure) {
    static std::atomic<unsigned> counter{0};
    const fs::path folder = target.parent_path().empty() ? fs::path(".") : target.parent_path();
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) {
        failure = "the folder " + folder.string() + " can't be created: " + error.message();
        return false;
    }
    const fs::path temporary =
        folder / ("." + target.filename().string() + ".tmp-" + std::to_string(::getpid()) + "-" +
                  std::to_string(counter.fetch_add(1)));
    int descriptor = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (descriptor < 0) {
        failure =
            "a temporary file can't be created in " + folder.string() + ": " + errnoText(errno);
        return false;
    }
    struct stat existing {};
    if (::stat(target.c_str(), &existing) == 0 && S_ISREG(existing.st_mode)) {
        ::fchmod(descriptor, existing.st_mode & 07777);  // keep a mode the user chose
    }
    bool written = writeAll(descriptor, text);
    int writeError = errno;
    bool synced = written && ::fsync(descriptor) == 0;
    int syncError = errno;
    bool closed = ::close(descriptor) == 0;
    if (!written || !synced || !closed) {
        failure = "writing " + temporary.string() + " failed: " +
                  errnoText(!written  ? writeError
                            : !synced ? syncError
                                      : errno);
        ::unlink(temporary.c_str());
        return false;
    }
    if (::rename(temporary.c_str(), target.c_str()) != 0) {
        failure = "it can't be replaced: " + errnoText(errno);
        ::unlink(temporary.c_str());
        return false;
    }
    // Make the rename itself durable; a failure here leaves a correct file, so it is ignored.
    int folderDescriptor = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folderDescriptor >= 0) {
        ::fsync(folderDescriptor);
        ::close(folderDescriptor);
    }
    return true;
}

// Reads the file, applies `change` to its object and writes it back, keeping keys it doesn't
// know. The caller holds the store's lock; log lines are returned for after it is released.
bool updateFile(const fs::path& file, const std::function<void(Json&)>& change,
                std::vector<std::string>& logLines) {
    const fs::path target = writeTarget(file);
    Loaded loaded = load(target);
    if (loaded.problem) {
        std::string failure;
        std::optional<fs::path> aside = moveAside(target, failure);
        if (!aside) {
            logLines.push_back("Couldn't save the settings to " + target.string() + ": " +
                               *loaded.problem + ", and " + failure + ".");
            return false;
        }
        logLines.push_back("The settings file " + target.string() + " couldn't be used (" +
                           *loaded.problem + "); moved it aside to " + aside->string() +
                           " and started a new one.");
    }
    change(loaded.object);
    std::string failure;
    if (!replaceFile(target, loaded.object.dump(2) + "\n", failure)) {
        logLines.push_back("Couldn't save the settings to " + target.string() + ": " + failure);
        return false;
    }
    return true;
}

void logAll(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) log(line);
}

std::vector<std::string> normalised(const std::vector<std::string>& entries) {
    std::vector<std::string> patterns;
    patterns.reserve(entries.size());
    for (const std::string& entry : entries) {
        if (auto pattern = OriginPolicy::normalizePattern(entry)) patterns.push_back(*pattern);
    }
    return patterns;
}

fs::path homeFolder() {
    const char* home = std::getenv("HOME");
    if (home != nullptr && home[0] == '/') return home;
    passwd entry{};
    passwd* found = nullptr;
    char buffer[4096];
    if (::getpwuid_r(::getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr &&
        found->pw_dir != nullptr && found->pw_dir[0] == '/') {
        return found->pw_dir;
    }
    return fs::temp_directory_path();
}

}  // namespace

HelperSettings& HelperSettings::shared() {
    static HelperSettings instance(defaultFile());
    return instance;
}

HelperSettings::HelperSettings(std::filesystem::path file) : file_(std::move(file)) {}

std::filesystem::path HelperSettings::defaultFile() {
    const char* configHome = std::getenv("XDG_CONFIG_HOME");
    // Relative values are invalid by the XDG rules and are ignored.
    fs::path base = (configHome != nullptr && configHome[0] == '/') ? fs::path(configHome)
                                                                    : homeFolder() / ".config";
    return base / HelperInfo::appId / "settings.json";
}

std::uint16_t HelperSettings::port() const {
    std::int64_t saved = savedPort().value_or(0);
    if (saved >= 1 && saved <= 65535) return static_cast<std::uint16_t>(saved);
    return HelperInfo::defaultPort;
}

bool HelperSettings::setPort(std::int64_t port) {
    std::vector<std::string> logLines;
    bool saved;
    {
        std::lock_guard guard(lock_);
        saved = updateFile(
            file_, [port](Json& object) { object[portKey] = port; }, logLines);
    }
    logAll(logLines);
    return saved;
}

bool HelperSettings::hasShownWelcome() const {
    Loaded loaded = load(file_);
    auto found = loaded.object.find(hasShownWelcomeKey);
    return found != loaded.object.end() && found->is_boolean() && found->get<bool>();
}

bool HelperSettings::setHasShownWelcome(bool shown) {
    std::vector<std::string> logLines;
    bool saved;
    {
        std::lock_guard guard(lock_);
        saved = updateFile(
            file_, [shown](Json& object) { object[hasShownWelcomeKey] = shown; }, logLines);
    }
    logAll(logLines);
    return saved;
}

std::vector<std::string> HelperSettings::extraOrigins() const {
    std::lock_guard guard(lock_);
    return normalised(stringArrayValue(load(file_).object, extraOriginsKey));
}

bool HelperSettings::setExtraOrigins(const std::vector<std::string>& origins) {
    const std::vector<std::string>& builtIn = HelperInfo::builtInOrigins();
    std::vector<std::string> kept;
    for (const std::string& pattern : normalised(origins)) {
        bool isBuiltIn = std::find(builtIn.begin(), builtIn.end(), pattern) != builtIn.end();
        bool isRepeat = std::find(kept.begin(), kept.end(), pattern) != kept.end();
        if (!isBuiltIn && !isRepeat) kept.push_back(pattern);
    }
    std::vector<std::string> logLines;
    bool saved;
    {
        std::lock_guard guard(lock_);
        saved = updateFile(
            file_, [&kept](Json& object) { object[extraOriginsKey] = kept; }, logLines);
    }
    logAll(logLines);
    return saved;
}

bool HelperSettings::isOriginAllowed(const std::optional<std::string>& origin) const {
    std::vector<std::string> patterns = HelperInfo::builtInOrigins();
    std::vector<std::string> extra = extraOrigins();
    patterns.insert(patterns.end(), extra.begin(), extra.end());
    return OriginPolicy::isAllowed(origin, patterns);
}

void HelperSettings::installAsKitHooks() {
    AudioKit::modifyConfig([this](AudioKitConfig& config) {
        config.port = [this] { return port(); };
        config.isOriginAllowed = [this](const std::optional<std::string>& origin) {
            return isOriginAllowed(origin);
        };
    });
}

std::optional<std::int64_t> HelperSettings::savedPort() const {
    return integerValue(load(file_).object, portKey);
}

std::vector<std::string> HelperSettings::savedExtraOrigins() const {
    return stringArrayValue(load(file_).object, extraOriginsKey);
}

std::optional<std::string> HelperSettings::fileProblem() const {
    return load(file_).problem;
}

}  // namespace velmora
