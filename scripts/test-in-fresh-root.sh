#!/usr/bin/env bash
# The README's test command on another Debian release, as a newcomer's machine runs it: a fresh
# clone of this checkout's committed state in a freshly bootstrapped root of that release (only
# Debian's minimal base, git and CA certificates), where scripts/test.sh installs everything
# itself, builds and runs every test, then builds that release's packages and checks them as
# packaging/tests/end-to-end.sh does. Their .debs are then installed, run and removed in a fresh
# root of the same release (packaging/tests/fresh-root-install.sh).
# Needs root. The roots come from the fresh-debian tool (FRESH_DEBIAN names it; by default the
# one beside the project in shared/tools), which caches each release's base root.
#   scripts/test-in-fresh-root.sh trixie|bookworm
set -euo pipefail
cd "$(dirname "$0")/.."

suite=${1:?usage: scripts/test-in-fresh-root.sh trixie|bookworm}
case "$suite" in
    trixie | bookworm) ;;
    *) echo "test-in-fresh-root: Debian 13 (trixie) and Debian 12 (bookworm) are tested; not $suite" >&2
       exit 2 ;;
esac
[ "$(id -u)" -eq 0 ] || { echo "test-in-fresh-root: needs root (chroot, bind mounts)" >&2; exit 2; }
fresh_debian=${FRESH_DEBIAN:-$PWD/../shared/tools/fresh-debian.sh}
[ -f "$fresh_debian" ] || { echo "test-in-fresh-root: no fresh-debian tool at $fresh_debian" >&2; exit 2; }

output=$(mktemp)
root=""
cleanup() {
    rm -f "$output"
    # The tool unmounts before it says it kept the root.
    if [ -n "$root" ] && ! mount | grep -qF "$root"; then rm -rf "$root"; fi
}
trap cleanup EXIT

echo "== Debian $suite: the README's test command and the packages in a fresh root"
status=0
KEEP=1 SUITE=$suite PROJECT=$PWD bash "$fresh_debian" run 'bash scripts/test.sh --packages' |
    tee "$output" || status=$?
root=$(sed -n 's/^kept \(\/.*\)$/\1/p' "$output" | tail -1)
[ "$status" -eq 0 ] || exit "$status"

packages="$root/root/project/build/packages"
helper_deb=$(ls "$packages"/velmora-audio-helper_*.deb)
pass_deb=$(ls "$packages"/velmora-pass_*.deb)
FRESH_DEBIAN=$fresh_debian bash packaging/tests/fresh-root-install.sh "$helper_deb" "$pass_deb"
