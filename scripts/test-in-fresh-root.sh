#!/usr/bin/env bash
# The README's test command on a Debian release as a newcomer's machine runs it: a fresh clone of
# this checkout's committed state in a fresh root of that release (only Debian's minimal base,
# git and CA certificates to start from), where scripts/install-deps.sh installs everything and
# `scripts/test.sh --packages` builds, runs every test, then builds that release's packages and
# checks them as packaging/tests/end-to-end.sh does. The packages are then installed, run and
# removed in another fresh root of the same release (packaging/tests/fresh-root-install.sh).
# Needs root; scripts/fresh-root.sh says where the roots come from.
#   scripts/test-in-fresh-root.sh SUITE             all of it (SUITE: trixie or bookworm)
#   scripts/test-in-fresh-root.sh prepare SUITE DIR   only make the root at DIR, install into it
#                                     and build the dev preset and the packages (at a quiet
#                                     moment, say, or at a low priority beside other work)
#   scripts/test-in-fresh-root.sh test DIR          the rest, in a root prepare made; removes it
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/fresh-root.sh

usage() {
    echo "usage: scripts/test-in-fresh-root.sh SUITE | prepare SUITE DIR | test DIR" >&2
    exit 2
}
[ "$(id -u)" -eq 0 ] || { echo "test-in-fresh-root: needs root (chroot, bind mounts)" >&2; exit 2; }

check_suite() {
    case "$1" in
        trixie | bookworm) ;;
        *) echo "test-in-fresh-root: Debian 13 (trixie) and Debian 12 (bookworm) are tested, not $1" >&2
           exit 2 ;;
    esac
}

prepare() {
    local suite=$1 root=$2
    check_suite "$suite"
    echo "== Debian $suite: a fresh root at $root, a fresh clone, scripts/install-deps.sh, the build"
    trap 'fresh_root_unmount "$root"' EXIT
    fresh_root_create "$suite" "$root"
    git clone -q "$PWD" "$root/root/project"
    # The mounts go while the root waits for its tests; they come back then.
    local status=0
    fresh_root_run "$root" 'cd /root/project && bash scripts/install-deps.sh &&
        cmake --preset dev >/dev/null && cmake --build --preset dev -j "$(nproc)" &&
        VELMORA_PACKAGES_BUILD_ONLY=1 bash packaging/tests/end-to-end.sh build/packages' ||
        status=$?
    fresh_root_unmount "$root"
    trap - EXIT
    return "$status"
}

test_in() {
    local root=$1
    trap 'fresh_root_remove "$root"' EXIT
    fresh_root_mount "$root"
    local release
    release=$(. "$root/etc/os-release" && echo "$PRETTY_NAME")
    echo "== $release: the README's test command and the packages, in $root"
    fresh_root_run "$root" 'cd /root/project && bash scripts/test.sh --packages'
    local packages="$root/root/project/build/packages"
    bash packaging/tests/fresh-root-install.sh "$packages"/velmora-audio-helper_*.deb \
        "$packages"/velmora-pass_*.deb
}

case "${1:-}" in
    prepare) [ $# -eq 3 ] || usage; prepare "$2" "$3" ;;
    test) [ $# -eq 2 ] || usage; test_in "$2" ;;
    "" | -*) usage ;;
    *)
        [ $# -eq 1 ] || usage
        root=$(mktemp -u -d "/var/tmp/velmora-$1-root.XXXXXX")
        prepare "$1" "$root" || { fresh_root_remove "$root"; exit 1; }
        test_in "$root" ;;
esac
