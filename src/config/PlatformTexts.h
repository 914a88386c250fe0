#pragma once

#include <string>
#include <string_view>

namespace velmora {

// The user-facing texts that name the operating system, its settings or its desktop. Every other
// text of the helper is the same on every platform; these come from one table per platform so
// each build speaks about the system it runs on.
struct PlatformTexts {
    // The "platform" value of the "hello" greeting.
    std::string_view platform;

    // CaptureError.permissionDenied's message: lead + appName + tail.
    std::string_view permissionDeniedLead;
    std::string_view permissionDeniedTail;

    // The "permission_timeout" message: lead + appName + tail.
    std::string_view permissionTimeoutLead;
    std::string_view permissionTimeoutTail;

    // The two paragraphs of the welcome text (the helper's name is written out in them).
    std::string_view welcomeWhereItLives;
    std::string_view welcomeFirstTime;

    // Appended, after an empty line, to the error text when start at login can't be changed.
    std::string_view loginItemTip;

    // The install offer's informative text, and the tip that follows a failed install's error
    // after an empty line.
    std::string_view installOfferInformative;
    std::string_view installInsteadTip;

    std::string permissionDenied(std::string_view appName) const;
    std::string permissionTimeout(std::string_view appName) const;

    // Both tables are always compiled in so either can be checked on any machine.
    static const PlatformTexts& forMacOS();
    static const PlatformTexts& forLinux();
    // The table of the platform this build runs on.
    static const PlatformTexts& current();
};

}  // namespace velmora
