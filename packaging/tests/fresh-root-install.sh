#!/usr/bin/env bash
# The helper's package as a user of its Debian release meets it: in a fresh root of that release
# (Debian's minimal base and nothing of this machine's),
#   1. `apt install ./velmora-audio-helper_*.deb` installs every library the package needs;
#   2. the installed helper serves a page headless, and with a display (Xvfb) loads its tray
#      module, shows its status and serves too; SIGTERM ends each run with status 0;
#   3. `apt remove` with `apt autoremove` leaves the root's files and packages as they were.
# The release is read from the package's version (1.0.0~deb12: Debian 12 "bookworm", ~deb13:
# Debian 13 "trixie"); the base root comes from the fresh-debian tool's cache (FRESH_DEBIAN names
# the tool; by default the one beside the project in shared/tools).
# Needs root (chroot, bind mounts).   fresh-root-install.sh HELPER_DEB PASS_DEB
set -euo pipefail
cd "$(dirname "$0")/../.."

fail() {
    echo "fresh-root-install: FAILED: $*" >&2
    exit 1
}
[ "$(id -u)" -eq 0 ] || fail "needs root (chroot, bind mounts)"
helper_deb=$(realpath "${1:?usage: fresh-root-install.sh HELPER_DEB PASS_DEB}")
pass_deb=$(realpath "${2:?usage: fresh-root-install.sh HELPER_DEB PASS_DEB}")
fresh_debian=${FRESH_DEBIAN:-$PWD/../shared/tools/fresh-debian.sh}
[ -x "$fresh_debian" ] || [ -f "$fresh_debian" ] || fail "no fresh-debian tool at $fresh_debian"

version=$(dpkg-deb -f "$helper_deb" Version)
case "$version" in
    *~deb12) suite=bookworm ;;
    *~deb13) suite=trixie ;;
    *) fail "the package's version $version names no Debian release this test knows" ;;
esac
echo "== fresh-root-install: velmora-audio-helper $version in a fresh Debian $suite root"

tarball=${FRESH_TAR:-/tmp/fresh-$suite.tar}
SUITE=$suite FRESH_TAR=$tarball bash "$fresh_debian" make >/dev/null
root=$(mktemp -d /var/tmp/velmora-fresh-root.XXXXXX)
cleanup() {
    umount -R "$root/dev" 2>/dev/null || true
    umount "$root/proc" "$root/sys" 2>/dev/null || true
    if ! mount | grep -qF "$root"; then rm -rf "$root"; fi
}
trap cleanup EXIT
tar -C "$root" -xf "$tarball"
mount --bind /proc "$root/proc"
mount --rbind /dev "$root/dev" && mount --make-rslave "$root/dev"
mount --bind /sys "$root/sys"
cp /etc/resolv.conf "$root/etc/resolv.conf"
if ls /usr/local/share/ca-certificates/*.crt >/dev/null 2>&1; then
    cp /usr/local/share/ca-certificates/*.crt "$root/usr/local/share/ca-certificates/"
    chroot "$root" update-ca-certificates >/dev/null 2>&1 || true
fi
mkdir -p "$root/root/packages"
cp "$helper_deb" "$pass_deb" "$root/root/packages/"
cp packaging/tests/fresh-root-checks.sh "$root/root/"
chroot "$root" /usr/bin/env -i HOME=/root PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    TERM=dumb LANG=C.UTF-8 bash /root/fresh-root-checks.sh /root/packages
