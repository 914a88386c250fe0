#!/usr/bin/env bash
# The README's test command on a Debian release as a newcomer's machine runs it: a fresh clone of
# this checkout's committed state in a fresh root of that release (only Debian's minimal base,
# git and CA certificates to start from), where scripts/install-deps.sh installs everything and
# `scripts/test.sh --packages` builds, runs every test, then builds that release's packages and
# checks them as packaging/tests/end-to-end.sh does. The packages are then installed, run and
# removed in another fresh root of the same release (packaging/tests/fresh-root-install.sh).
# Needs root; scripts/fresh-root.sh says where the roots come from.
#   scripts/test-in-fresh-root.sh SUITE             all of it (SUITE: trixie or bookworm)
#   scripts/test-in-fresh-root.sh prepare SUITE DIR [--build-packages]
#                                     only make the root at DIR and install what the tests need
#                                     into it (and, asked to, build the release's packages there)
#   scripts/test-in-fresh-root.sh test DIR [OPTION...]
#                                     the rest, in a root prepare made (the options go to
#                                     scripts/test.sh); removes the root
#   scripts/test-in-fresh-root.sh packages DIR
#                                     only install, run and remove the packages that
#                                     `prepare --build-packages` built; removes the root
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/fresh-root.sh

usage() {
    echo "usage: scripts/test-in-fresh-root.sh SUITE | prepare SUITE DIR [--build-packages]" \
        "| test DIR [OPTION...] | packages DIR" >&2
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
    local suite=$1 root=$2 build_packages=${3:-}
    check_suite "$suite"
    case "$build_packages" in
        "" | --build-packages) ;;
        *) usage ;;
    esac
    echo "== Debian $suite: a fresh root at $root, a fresh clone, scripts/install-deps.sh"
    # The path is written into the trap: it runs at exit, when this function's locals are gone.
    trap "fresh_root_unmount $(printf %q "$root")" EXIT
    fresh_root_create "$suite" "$root"
    git clone -q "$PWD" "$root/root/project"
    local commands='cd /root/project && bash scripts/install-deps.sh'
    if [ -n "$build_packages" ]; then
        echo "== Debian $suite: the release's packages, built in the root"
        commands+=' && VELMORA_PACKAGES_BUILD_ONLY=1 bash packaging/tests/end-to-end.sh build/packages'
    fi
    # The mounts go while the root waits for its tests; they come back then.
    local status=0
    fresh_root_run "$root" "$commands" || status=$?
    fresh_root_unmount "$root"
    trap - EXIT
    return "$status"
}

install_packages() {
    local root=$1
    local packages="$root/root/project/build/packages"
    bash packaging/tests/fresh-root-install.sh "$packages"/velmora-audio-helper_*.deb \
        "$packages"/velmora-pass_*.deb
}

test_in() {
    local root=$1
    shift
    trap "fresh_root_remove $(printf %q "$root")" EXIT
    fresh_root_mount "$root"
    local release
    release=$(. "$root/etc/os-release" && echo "$PRETTY_NAME")
    echo "== $release: the README's test command and the packages, in $root"
    fresh_root_run "$root" "cd /root/project && bash scripts/test.sh --packages $*"
    install_packages "$root"
}

packages_only() {
    local root=$1
    trap "fresh_root_remove $(printf %q "$root")" EXIT
    install_packages "$root"
}

case "${1:-}" in
    prepare) [ $# -eq 3 ] || [ $# -eq 4 ] || usage; shift; prepare "$@" ;;
    test) [ $# -ge 2 ] || usage; shift; test_in "$@" ;;
    packages) [ $# -eq 2 ] || usage; packages_only "$2" ;;
    "" | -*) usage ;;
    *)
        [ $# -eq 1 ] || usage
        root=$(mktemp -u -d "/var/tmp/velmora-$1-root.XXXXXX")
        prepare "$1" "$root" || { fresh_root_remove "$root"; exit 1; }
        test_in "$root" ;;
esac
