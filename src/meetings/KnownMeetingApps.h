#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "meetings/MeetingApp.h"

namespace velmora {

// The meeting applications whose microphone use counts as being in a call.
namespace KnownMeetingApps {

struct Row {
    std::string_view match;  // an application identifier
    bool prefix;             // whether identifiers extending `match` by "." belong to the row too
    std::string_view key;
    std::string_view name;
};

// The rows in lookup order: the first matching row wins.
const std::vector<Row>& table();

// The application a microphone user belongs to, or nothing. Case-sensitive.
std::optional<MeetingApp> match(std::string_view bundleId);

// Whether a microphone user is not to be considered at all: the helper itself, its
// sub-processes, and browser-engine helper processes.
bool isIgnored(std::string_view bundleId, std::string_view ownBundleId);

// The known meeting applications among the microphone users, keyed by the row's identifier.
// (Named usingApps because `using` is a C++ keyword.)
std::map<std::string, MeetingApp> usingApps(const std::vector<std::string>& bundleIds,
                                            std::string_view ownBundleId);

}  // namespace KnownMeetingApps
}  // namespace velmora
