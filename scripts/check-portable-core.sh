#!/usr/bin/env bash
# The platform-neutral core includes no Linux-only header, so that another platform's backend
# needs new folders only. Platform code lives in folders named after the platform's API
# (pulse/, linux/) and is left out of the check; POSIX and the C++ library are fine everywhere.
#   scripts/check-portable-core.sh [SOURCE_ROOT]   (default: this checkout)
# Prints each offending include as file:line: text and exits 1; exits 0 when there is none.
set -euo pipefail

root="${1:-$(cd "$(dirname "$0")/.." && pwd)}"

# The core's folders, and the platform folders inside them that may use the platform.
core_folders=(src/config src/access src/server src/capture src/meetings)
platform_folders=(pulse linux)

# Linux-only headers: whole families by folder, single headers by name.
linux_header_folders=(linux asm asm-generic pulse pipewire spa systemd libudev selinux gnu)
linux_headers=(
    sys/epoll.h sys/eventfd.h sys/timerfd.h sys/inotify.h sys/fanotify.h sys/signalfd.h
    sys/prctl.h sys/sysinfo.h sys/sysmacros.h sys/auxv.h sys/sendfile.h sys/vfs.h sys/statfs.h
    sys/klog.h sys/personality.h sys/capability.h sys/fsuid.h sys/quota.h sys/swap.h
    sys/reboot.h sys/pidfd.h mntent.h malloc.h libudev.h features.h
)

quote() { sed 's/[.]/\\./g' <<<"$1"; }
alternatives=()
for folder in "${linux_header_folders[@]}"; do alternatives+=("$(quote "$folder")/[^>\"]*"); done
for header in "${linux_headers[@]}"; do alternatives+=("$(quote "$header")"); done
pattern="^[[:space:]]*#[[:space:]]*include[[:space:]]*[<\"]($(IFS='|'; echo "${alternatives[*]}"))[>\"]"

prune=()
for folder in "${platform_folders[@]}"; do prune+=(-name "$folder" -o); done
unset 'prune[${#prune[@]}-1]'

found=0
for folder in "${core_folders[@]}"; do
    [ -d "$root/$folder" ] || continue
    while IFS= read -r -d '' file; do
        if matches=$(grep -nE "$pattern" "$file"); then
            while IFS= read -r match; do
                echo "${file#"$root"/}:${match}"
            done <<<"$matches"
            found=1
        fi
    done < <(find "$root/$folder" -type d \( "${prune[@]}" \) -prune -o -type f \
        \( -name '*.cpp' -o -name '*.h' -o -name '*.hpp' -o -name '*.c' -o -name '*.cc' \
        -o -name '*.in' \) -print0 | sort -z)
done

if [ "$found" -ne 0 ]; then
    echo "Linux-only headers in the portable core (move that code behind an interface, with" \
        "its Linux side in a linux/ or pulse/ folder)" >&2
    exit 1
fi
echo "The portable core includes no Linux-only header (${core_folders[*]})"
