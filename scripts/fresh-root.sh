# Fresh Debian roots for the tests that need a newcomer's machine; sourced. A root starts as the
# base root of its release from the fresh-debian tool's cache (Debian's minimal base, git and CA
# certificates; FRESH_DEBIAN names the tool, by default the one beside the project in
# shared/tools), with this machine's /proc, /dev and /sys, name servers and local certificate
# authorities. Needs root.

# Ended by a signal, a script still runs its EXIT trap, which unmounts and removes its roots.
trap 'exit 130' INT
trap 'exit 143' TERM

fresh_debian=${FRESH_DEBIAN:-$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/../shared/tools/fresh-debian.sh}

# Makes a fresh root of Debian SUITE (bookworm, trixie) at the new folder ROOT.
fresh_root_create() {
    local suite=$1 root=$2
    [ -f "$fresh_debian" ] || { echo "fresh-root: no fresh-debian tool at $fresh_debian" >&2; return 2; }
    local tarball=${FRESH_TAR:-/tmp/fresh-$suite.tar}
    SUITE=$suite FRESH_TAR=$tarball bash "$fresh_debian" make >/dev/null || return
    mkdir "$root" || return
    tar -C "$root" -xf "$tarball" || return
    # The cached tarball keeps its temporary folder's 0700 as the root's mode, which shuts out
    # every account but root (apt's download user and man-db's among them); / is 0755 on a machine.
    chmod 755 "$root"
    fresh_root_mount "$root"
    if ls /usr/local/share/ca-certificates/*.crt >/dev/null 2>&1; then
        cp /usr/local/share/ca-certificates/*.crt "$root/usr/local/share/ca-certificates/"
        chroot "$root" update-ca-certificates >/dev/null 2>&1 || true
    fi
}

# Mounts what a root's programs need from this machine (again after fresh_root_unmount).
fresh_root_mount() {
    local root=$1
    # The root is a mount point of its own, as / is on a machine: tests that make a private mount
    # namespace need one to change its propagation.
    mount --bind "$root" "$root"
    mount --bind /proc "$root/proc"
    mount --rbind /dev "$root/dev" && mount --make-rslave "$root/dev"
    mount --bind /sys "$root/sys"
    cp /etc/resolv.conf "$root/etc/resolv.conf"
}

fresh_root_unmount() {
    local root=$1
    umount -R "$root" 2>/dev/null || true
}

# Runs COMMAND with bash in ROOT as root, with a clean environment.
fresh_root_run() {
    local root=$1 command=$2
    chroot "$root" /usr/bin/env -i HOME=/root TERM=dumb LANG=C.UTF-8 \
        NODE_EXTRA_CA_CERTS=/etc/ssl/certs/ca-certificates.crt \
        PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin bash -lc "$command"
}

# Unmounts and deletes ROOT; a root something is still mounted in is left, and said so.
fresh_root_remove() {
    local root=$1
    [ -d "$root" ] || return 0
    fresh_root_unmount "$root"
    if findmnt -rn -o TARGET | grep -qE "^$root(/|$)"; then
        echo "fresh-root: $root still has mounts; left in place" >&2
        return 1
    fi
    rm -rf --one-file-system "$root"
}
