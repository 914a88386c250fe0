#pragma once

#include <stdexcept>
#include <string>

namespace velmora {

// Why start at login could not be switched; what() is shown to the user as is.
class LoginItemError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The desktop's facility that starts the helper when the user logs in.
class LoginItemService {
  public:
    enum class Status {
        enabled,           // the helper starts at login
        notRegistered,     // it does not
        requiresApproval,  // registered, but the user still has to allow it in the settings
    };

    virtual ~LoginItemService() = default;

    virtual Status status() = 0;
    // Both throw LoginItemError when the change could not be made.
    virtual void registerItem() = 0;
    virtual void unregisterItem() = 0;
    // Shows the desktop's settings where login items are approved (where there are any).
    virtual void openSettings() = 0;
};

}  // namespace velmora
