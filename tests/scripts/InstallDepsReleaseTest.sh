#!/usr/bin/env bash
# scripts/install-deps.sh chooses its packages by the Debian release it runs on: Debian 12 and 13
# each get the Boost and LLVM packages they have, and any other system is told what the script
# supports and gets a non-zero status with nothing installed.
# Usage: InstallDepsReleaseTest.sh SOURCE_DIR. Ends with "N passed, N failed".
set -uo pipefail
install_deps="$1/scripts/install-deps.sh"

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

source "$(dirname "${BASH_SOURCE[0]}")/tally.sh"

os_release() { # ID CODENAME PRETTY_NAME
    printf 'PRETTY_NAME="%s"\nID=%s\nVERSION_CODENAME=%s\n' "$3" "$1" "$2" >"$work/os-release"
}

os_release debian trixie "Debian GNU/Linux 13 (trixie)"
list=$(VELMORA_OS_RELEASE="$work/os-release" bash "$install_deps" --print) &&
    grep -qx libboost-dev <<<"$list" && grep -qx libboost-url-dev <<<"$list" &&
    grep -qx libfuzzer-19-dev <<<"$list" && grep -qx clang <<<"$list" &&
    grep -qx qt6-svg-plugins <<<"$list" &&
    ! grep -q 1.81 <<<"$list" && pass || fail "Debian 13 gets its own Boost, LLVM and SVG plug-ins: $list"

os_release debian bookworm "Debian GNU/Linux 12 (bookworm)"
list=$(VELMORA_OS_RELEASE="$work/os-release" bash "$install_deps" --print) &&
    grep -qx libboost1.81-dev <<<"$list" && grep -qx libboost-url1.81-dev <<<"$list" &&
    grep -qx libfuzzer-14-dev <<<"$list" && grep -qx qt6-base-dev <<<"$list" &&
    ! grep -qx qt6-svg-plugins <<<"$list" &&
    pass || fail "Debian 12 gets Boost 1.81 and LLVM 14: $list"

# Unknown releases: another distribution, a Debian release the script does not know, no file.
expect_refused() { # WHAT EXPECTED_NAME
    local status=0
    VELMORA_OS_RELEASE="$work/os-release" bash "$install_deps" >"$work/out" 2>"$work/err" ||
        status=$?
    if [ "$status" -eq 3 ] && grep -q "Debian 13 (trixie) or Debian 12 (bookworm)" "$work/err" &&
        grep -qF "$2" "$work/err" && [ ! -s "$work/out" ]; then
        pass
    else
        fail "$1: status $status, said: $(cat "$work/err" "$work/out")"
    fi
}
os_release fedora "" "Fedora Linux 41 (Workstation Edition)"
expect_refused "another distribution" "this machine is Fedora Linux 41 (Workstation Edition)"
os_release debian bullseye "Debian GNU/Linux 11 (bullseye)"
expect_refused "an older Debian" "this machine is Debian GNU/Linux 11 (bullseye)"
os_release debian forky "Debian GNU/Linux forky/sid"
expect_refused "a newer Debian" "Debian GNU/Linux forky/sid"
rm -f "$work/os-release"
expect_refused "no os-release file" "an unknown system"

# The release this machine runs is one the script knows.
bash "$install_deps" --print >/dev/null && pass || fail "this machine's release is not supported"

summary
