#include "app/XdgAutostartLoginItem.h"

#include <optional>
#include <string>
#include <system_error>

#include "app/installer/AutostartEntry.h"
#include "config/RunningExecutable.h"

namespace velmora {

XdgAutostartLoginItem::XdgAutostartLoginItem()
    : XdgAutostartLoginItem(defaultAutostartFolder(),
                            runningExecutable().value_or("velmora-audio-helper")) {}

XdgAutostartLoginItem::XdgAutostartLoginItem(std::filesystem::path autostartFolder,
                                             std::filesystem::path executable)
    : folder_(std::move(autostartFolder)),
      entryFile_(folder_ / AutostartEntry::fileName),
      executable_(std::move(executable)) {}

std::filesystem::path XdgAutostartLoginItem::defaultAutostartFolder() {
    return AutostartEntry::defaultFolder();
}

LoginItemService::Status XdgAutostartLoginItem::status() {
    // On only when our entry would start a helper at the next login: someone else's entry, or
    // ours pointing at a copy that is gone (an ejected disk image), is not ours to show as on.
    auto keys = AutostartEntry::read(entryFile_);
    if (!keys || !AutostartEntry::isOurs(*keys) || AutostartEntry::isSwitchedOff(*keys) ||
        !AutostartEntry::runnableProgram(*keys)) {
        return Status::notRegistered;
    }
    return Status::enabled;
}

void XdgAutostartLoginItem::registerItem() {
    if (auto keys = AutostartEntry::read(entryFile_); keys && !AutostartEntry::isOurs(*keys)) {
        throw LoginItemError(entryFile_.string() +
                             " was not written by Velmora Audio Helper; it was left unchanged. "
                             "Remove it and try again.");
    }
    if (auto failure = AutostartEntry::write(folder_, executable_)) {
        throw LoginItemError(*failure);
    }
}

void XdgAutostartLoginItem::unregisterItem() {
    auto keys = AutostartEntry::read(entryFile_);
    if (!keys || AutostartEntry::isSwitchedOff(*keys)) return;
    if (!AutostartEntry::isOurs(*keys)) {
        throw LoginItemError(entryFile_.string() +
                             " was not written by Velmora Audio Helper; it was left unchanged. "
                             "Remove it to stop the helper starting at login.");
    }
    std::error_code error;
    std::filesystem::remove(entryFile_, error);
    if (error) {
        throw LoginItemError("Could not remove " + entryFile_.string() + ": " + error.message() +
                             ".");
    }
}

}  // namespace velmora
