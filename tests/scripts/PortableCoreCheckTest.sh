#!/usr/bin/env bash
# The portable-core check passes on this checkout, and on a small tree of its own it fails on a
# Linux-only include planted in any core folder, naming the file and line, while the same include
# in a platform folder, a POSIX header or a comment passes.
# Usage: PortableCoreCheckTest.sh SOURCE_DIR. Ends with "N passed, N failed".
set -uo pipefail
source_dir="$1"
check="$source_dir/scripts/check-portable-core.sh"

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

source "$(dirname "${BASH_SOURCE[0]}")/tally.sh"

# A core tree that the check accepts: POSIX headers in the core, Linux ones in platform folders.
fresh_tree() {
    rm -rf "$work/tree"
    for folder in config access server capture meetings capture/pulse meetings/pulse server/linux \
        config/linux; do
        mkdir -p "$work/tree/src/$folder"
    done
    printf '#include <unistd.h>\n#include <sys/socket.h>\n#include <string>\n' \
        >"$work/tree/src/server/Clean.cpp"
    printf '#include <pulse/context.h>\n' >"$work/tree/src/capture/pulse/Tap.cpp"
    printf '#include <pulse/introspect.h>\n' >"$work/tree/src/meetings/pulse/Users.cpp"
    printf '#include <linux/netlink.h>\n#include <sys/epoll.h>\n' \
        >"$work/tree/src/server/linux/Lookup.cpp"
    printf '#include <systemd/sd-journal.h>\n' >"$work/tree/src/config/linux/Journal.cpp"
    # Code outside the core is not the check's business.
    mkdir -p "$work/tree/src/app"
    printf '#include <sys/prctl.h>\n' >"$work/tree/src/app/Main.cpp"
}

# accepted WHAT: the check passes on the tree as it stands.
accepted() {
    if bash "$check" "$work/tree" >"$work/output" 2>&1; then
        pass
    else
        fail "$1: refused"
        cat "$work/output" >&2
    fi
}

# refused WHAT FILE LINE: the check fails and names FILE:LINE.
refused() {
    if bash "$check" "$work/tree" >"$work/output" 2>&1; then
        fail "$1: accepted"
    elif ! grep -qF "$2:$3:" "$work/output"; then
        fail "$1: did not name $2:$3"
        cat "$work/output" >&2
    else
        pass
    fi
}

if bash "$check" "$source_dir" >"$work/output" 2>&1; then
    pass
else
    fail "this checkout: refused"
    cat "$work/output" >&2
fi

fresh_tree
accepted "a clean tree"

# plant FILE TEXT: appends one line to FILE in a fresh tree.
plant() {
    fresh_tree
    mkdir -p "$(dirname "$work/tree/$1")"
    printf '#include <string>\n%s\n' "$2" >>"$work/tree/$1"
}

plant src/config/Log.cpp '#include <systemd/sd-journal.h>'
refused "the journal in config" src/config/Log.cpp 2
plant src/server/Loop.h '#include <sys/epoll.h>'
refused "epoll in server" src/server/Loop.h 2
plant src/capture/Timer.cpp '  #  include "sys/timerfd.h"'
refused "timerfd, quoted and indented, in capture" src/capture/Timer.cpp 2
plant src/meetings/Users.cpp '#include <pulse/context.h>'
refused "libpulse in meetings outside pulse/" src/meetings/Users.cpp 2
plant src/meetings/detail/Watch.cpp '#include <pipewire/pipewire.h>'
refused "PipeWire in a subfolder of meetings" src/meetings/detail/Watch.cpp 2
plant src/access/Keys.cpp '#include <linux/random.h>'
refused "a kernel header in access" src/access/Keys.cpp 2
plant src/config/Uptime.cpp '#include <sys/sysinfo.h>'
refused "sysinfo in config" src/config/Uptime.cpp 2
plant src/server/Name.cpp '#include <sys/prctl.h>'
refused "prctl in server" src/server/Name.cpp 2
plant src/capture/Watch.cpp '#include <sys/inotify.h>'
refused "inotify in capture" src/capture/Watch.cpp 2

plant src/server/Note.cpp '// Unlike <sys/epoll.h>, this stays portable.'
accepted "a header named in a comment"
plant src/capture/pulse/Loop.cpp '#include <sys/eventfd.h>'
accepted "eventfd in capture/pulse"
plant src/server/Poll.cpp '#include <poll.h>'
accepted "a POSIX header in server"

summary
