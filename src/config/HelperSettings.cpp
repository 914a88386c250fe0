#include "config/HelperSettings.h"

#include <fcntl.h>
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
#include "config/PrivateFiles.h"
#include "config/UserFolders.h"

namespace velmora {

struct SettingsMemory {
    std::mutex lock;
    nlohmann::json object = nlohmann::json::object();
};

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
    // Something stands at the path that is not this user's regular file: it is never read,
    // written through or moved.
    bool refused = false;
    std::optional<std::string> problem;
};

Loaded load(const fs::path& file) {
    Loaded loaded;
    PrivateFiles::Opened opened = PrivateFiles::open(file, O_RDONLY);
    if (!opened) {
        if (!opened.missing) {
            loaded.exists = true;
            loaded.refused = opened.refused;
            loaded.problem = "it " + opened.problem;
        }
        return loaded;
    }
    const int descriptor = opened.descriptor;
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

// Reads the file, applies `change` to its object and writes it back, keeping keys it doesn't
// know. The caller holds the store's lock; log lines are returned for after it is released.
bool updateFile(const fs::path& file, const std::function<void(Json&)>& change,
                std::vector<std::string>& logLines) {
    const fs::path& target = file;
    Loaded loaded = load(target);
    if (loaded.refused) {
        logLines.push_back("Couldn't save the settings to " + target.string() + ": " +
                           *loaded.problem + "; it was left alone.");
        return false;
    }
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
    if (auto failure = PrivateFiles::replace(target, loaded.object.dump(2) + "\n", 0600)) {
        logLines.push_back("Couldn't save the settings to " + target.string() + ": " + *failure);
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

// The loaded object of the file, or of the in-memory store when there is no file.
Loaded loadSettings(const fs::path& file, SettingsMemory& memory) {
    if (!file.empty()) return load(file);
    Loaded loaded;
    std::lock_guard guard(memory.lock);
    loaded.object = memory.object;
    return loaded;
}

}  // namespace

HelperSettings& HelperSettings::shared() {
    static HelperSettings instance([] {
        fs::path file = defaultFile();
        if (file.empty() && UserFolders::claimNoHomeNotice()) log(UserFolders::noHomeNotice);
        return file;
    }());
    return instance;
}

HelperSettings::HelperSettings(std::filesystem::path file)
    : file_(std::move(file)), memory_(std::make_unique<SettingsMemory>()) {}

HelperSettings::~HelperSettings() = default;

std::filesystem::path HelperSettings::defaultFile() {
    std::optional<fs::path> base = UserFolders::configHome();
    if (!base) return {};
    return *base / HelperInfo::appId / "settings.json";
}

void HelperSettings::noteRefusal(bool refused, const std::optional<std::string>& problem) const {
    {
        std::lock_guard guard(reportLock_);
        if (!refused || !problem || *problem == lastRefusal_) return;
        lastRefusal_ = *problem;
    }
    log("The settings file " + file_.string() + " can't be used: " + *problem +
        "; it was left alone and the defaults apply.");
}

std::uint16_t HelperSettings::port() const {
    std::int64_t saved = savedPort().value_or(0);
    if (saved >= 1 && saved <= 65535) return static_cast<std::uint16_t>(saved);
    return HelperInfo::defaultPort;
}

bool HelperSettings::update(const std::function<void(nlohmann::json&)>& change) {
    std::vector<std::string> logLines;
    bool saved = true;
    {
        std::lock_guard guard(lock_);
        if (file_.empty()) {
            std::lock_guard memoryGuard(memory_->lock);
            change(memory_->object);
        } else {
            saved = updateFile(file_, change, logLines);
        }
    }
    logAll(logLines);
    {
        std::lock_guard guard(reportLock_);
        lastSaveProblem_.reset();
        if (!saved && !logLines.empty()) lastSaveProblem_ = logLines.back();
    }
    return saved;
}

std::optional<std::string> HelperSettings::lastSaveProblem() const {
    std::lock_guard guard(reportLock_);
    return lastSaveProblem_;
}

bool HelperSettings::setPort(std::int64_t port) {
    return update([port](Json& object) { object[portKey] = port; });
}

bool HelperSettings::hasShownWelcome() const {
    Loaded loaded = loadSettings(file_, *memory_);
    noteRefusal(loaded.refused, loaded.problem);
    auto found = loaded.object.find(hasShownWelcomeKey);
    return found != loaded.object.end() && found->is_boolean() && found->get<bool>();
}

bool HelperSettings::setHasShownWelcome(bool shown) {
    return update([shown](Json& object) { object[hasShownWelcomeKey] = shown; });
}

std::vector<std::string> HelperSettings::extraOrigins() const {
    Loaded loaded;
    std::vector<std::string> patterns;
    {
        std::lock_guard guard(lock_);
        loaded = loadSettings(file_, *memory_);
        patterns = normalised(stringArrayValue(loaded.object, extraOriginsKey));
    }
    noteRefusal(loaded.refused, loaded.problem);
    return patterns;
}

bool HelperSettings::setExtraOrigins(const std::vector<std::string>& origins) {
    const std::vector<std::string>& builtIn = HelperInfo::builtInOrigins();
    std::vector<std::string> kept;
    for (const std::string& pattern : normalised(origins)) {
        bool isBuiltIn = std::find(builtIn.begin(), builtIn.end(), pattern) != builtIn.end();
        bool isRepeat = std::find(kept.begin(), kept.end(), pattern) != kept.end();
        if (!isBuiltIn && !isRepeat) kept.push_back(pattern);
    }
    return update([&kept](Json& object) { object[extraOriginsKey] = kept; });
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
    Loaded loaded = loadSettings(file_, *memory_);
    noteRefusal(loaded.refused, loaded.problem);
    return integerValue(loaded.object, portKey);
}

std::vector<std::string> HelperSettings::savedExtraOrigins() const {
    Loaded loaded = loadSettings(file_, *memory_);
    noteRefusal(loaded.refused, loaded.problem);
    return stringArrayValue(loaded.object, extraOriginsKey);
}

std::optional<std::string> HelperSettings::fileProblem() const {
    return loadSettings(file_, *memory_).problem;
}

}  // namespace velmora
