#!/usr/bin/env bash
# The helper's package as a user of its Debian release meets it: in a fresh root of that release
# (Debian's minimal base and nothing of this machine's),
#   1. `apt install ./velmora-audio-helper_*.deb` installs every library the package needs;
#   2. the installed helper serves a page headless, and with a display (Xvfb) loads its tray
#      module, shows its status and serves too; SIGTERM ends each run with status 0;
#   3. `apt remove` with `apt autoremove` leaves the root's files and packages as they were.
# The release is read from the package's version (1.0.0~deb12: Debian 12 "bookworm", ~deb13:
# Debian 13 "trixie"); the base root comes from the fresh-debian tool's cache (FRESH_DEBIAN names
# the tool; scripts/fresh-root.sh says more).
# Needs root (chroot, bind mounts).   fresh-root-install.sh HELPER_DEB PASS_DEB
set -euo pipefail
helper_deb=$(realpath "${1:?usage: fresh-root-install.sh HELPER_DEB PASS_DEB}")
pass_deb=$(realpath "${2:?usage: fresh-root-install.sh HELPER_DEB PASS_DEB}")
cd "$(dirname "$0")/../.."

check_name=fresh-root-install
source packaging/tests/check-steps.sh
[ "$(id -u)" -eq 0 ] || fail "needs root (chroot, bind mounts)"
source scripts/fresh-root.sh

version=$(dpkg-deb -f "$helper_deb" Version)
case "$version" in
    *~deb12) suite=bookworm ;;
    *~deb13) suite=trixie ;;
    *) fail "the package's version $version names no Debian release this test knows" ;;
esac
step "velmora-audio-helper $version in a fresh Debian $suite root"

root=$(mktemp -u -d /var/tmp/velmora-fresh-root.XXXXXX)
trap 'fresh_root_remove "$root"' EXIT
fresh_root_create "$suite" "$root"
mkdir -p "$root/root/packages"
cp "$helper_deb" "$pass_deb" "$root/root/packages/"
cp packaging/tests/fresh-root-checks.sh packaging/tests/check-steps.sh "$root/root/"
fresh_root_run "$root" 'bash /root/fresh-root-checks.sh /root/packages'
