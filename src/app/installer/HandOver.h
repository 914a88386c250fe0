#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

#include "app/installer/DiskImageVolume.h"

namespace velmora::AppInstaller {

// The hand-over script, run as `/bin/sh -c <script> sh <pid> <device> <installed executable>`:
// waits until the process `pid` has gone, detaches the disk image's device when one is named
// (through the desktop's disk service: unmounted, again by force a second later, then its loop
// device deleted; with umount when the service can't unmount it), then becomes the installed
// copy.
inline constexpr std::string_view handOverScript =
    "while kill -0 \"$1\" 2>/dev/null; do sleep 0.2; done\n"
    "if [ -n \"$2\" ]; then\n"
    "    if udisksctl unmount --no-user-interaction -b \"$2\" >/dev/null 2>&1 ||"
    " { sleep 1; udisksctl unmount --no-user-interaction --force -b \"$2\" >/dev/null 2>&1; };"
    " then\n"
    "        udisksctl loop-delete --no-user-interaction -b \"$2\" >/dev/null 2>&1\n"
    "    else\n"
    "        umount \"$2\"\n"
    "    fi\n"
    "fi\n"
    "exec \"$3\" </dev/null";

// Starts the hand-over script for this process and returns at once; it does not wait for the
// script, and a script that can't start is ignored (this copy then simply keeps the field).
// The script runs in its own session from "/", so it holds nothing on the image open.
void relaunch(const std::filesystem::path& installedExecutable,
              const std::optional<DiskImageVolume>& ejecting);

}  // namespace velmora::AppInstaller
