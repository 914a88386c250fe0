#pragma once

#include <string>

namespace velmora {

// A known meeting application, as the table names it.
struct MeetingApp {
    std::string key;       // family name shared by all rows of one application ("teams", "browser")
    std::string name;      // display name ("Microsoft Teams")
    std::string bundleId;  // the matching table row's identifier, not the process's own

    friend bool operator==(const MeetingApp&, const MeetingApp&) = default;
};

}  // namespace velmora
