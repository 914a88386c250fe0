#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

struct SettingsMemory;

// The user's saved settings: a small JSON object in a per-user file with the keys "port",
// "extraOrigins" and "hasShownWelcome". Nothing is cached: every read reads the file again, so an
// edit made while the helper runs applies at its next use. Safe to use from any thread.
// The file is this user's own regular file (0600, in a 0700 folder); a link, FIFO or another
// user's file at its path is never read, written through or replaced, and is logged. Without a
// file (no home folder) the settings live in memory for the process.
class HelperSettings final {
  public:
    // The store behind the default file, created on first use and kept for the process.
    static HelperSettings& shared();

    // The store of `file`; in memory when it is empty.
    explicit HelperSettings(std::filesystem::path file);
    ~HelperSettings();

    HelperSettings(const HelperSettings&) = delete;
    HelperSettings& operator=(const HelperSettings&) = delete;

    // $XDG_CONFIG_HOME/velmora-audio-helper/settings.json, where XDG_CONFIG_HOME defaults to
    // ~/.config; empty without a home folder.
    static std::filesystem::path defaultFile();
    // The file, empty when the settings are kept in memory.
    const std::filesystem::path& file() const { return file_; }
    bool isInMemory() const { return file_.empty(); }

    // The saved port when it is 1...65535; otherwise (unset, 0, negative, too large, not an
    // integer) HelperInfo::defaultPort.
    std::uint16_t port() const;
    // Saves the value as given; one outside 1...65535 reads back as the default. The setters
    // return false when the file could not be written (the reason is logged).
    bool setPort(std::int64_t port);

    bool hasShownWelcome() const;
    bool setHasShownWelcome(bool shown);

    // The saved entries that OriginPolicy::normalizePattern accepts, normalised, in saved order,
    // duplicates kept. Entries it rejects are skipped but stay in the file.
    std::vector<std::string> extraOrigins() const;
    // Saves the entries after normalising them, dropping rejected ones, built-in origins and
    // duplicates (the first occurrence stays). Nothing is reported about dropped entries.
    bool setExtraOrigins(const std::vector<std::string>& origins);

    // Built-in origins plus the extra origins, read anew at each call.
    bool isOriginAllowed(const std::optional<std::string>& origin) const;

    // Points AudioKit's port and origin hooks at this store, read anew at every call. The store
    // must outlive every later use of those hooks (shared() does).
    void installAsKitHooks();

    // For showing the file to a person: the port value as saved (absent when unset or not an
    // integer), and the saved "extraOrigins" array as is (empty when unset or not all strings).
    std::optional<std::int64_t> savedPort() const;
    std::vector<std::string> savedExtraOrigins() const;
    // The line logged when the last write failed (which file, and why); nothing when it
    // succeeded.
    std::optional<std::string> lastSaveProblem() const;
    // Why the file can't be used, when it exists but is unreadable or not a JSON object;
    // reads then see every key as unset and the next write moves the file aside.
    std::optional<std::string> fileProblem() const;

  private:
    // Guards the read-and-normalise of the extra origins and every read-modify-write of the file
    // (so writers of different keys don't lose each other's changes). Held only around file
    // access and normalisation: never while logging or calling other parts, never nested.
    mutable std::mutex lock_;
    std::filesystem::path file_;
    // The settings without a file; its own lock is taken last, and only around the object.
    std::unique_ptr<SettingsMemory> memory_;
    // The last refusal logged, so a planted file is logged once, not at every read.
    mutable std::mutex reportLock_;
    mutable std::string lastRefusal_;
    std::optional<std::string> lastSaveProblem_;

    bool update(const std::function<void(nlohmann::json&)>& change);
    void noteRefusal(bool refused, const std::optional<std::string>& problem) const;
};

}  // namespace velmora
