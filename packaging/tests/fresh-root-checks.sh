#!/usr/bin/env bash
# The checks fresh-root-install.sh runs inside a fresh Debian root: install the packages in
# FOLDER with apt as a user would, run the helper headless and with a display, remove them and
# compare the root with how it was.   fresh-root-checks.sh FOLDER
set -euo pipefail
folder=$1
export DEBIAN_FRONTEND=noninteractive
check_name=fresh-root-install
patience=30
source "$(dirname "$0")/check-steps.sh"

# Installed packages and the root's paths, without what changes on its own (caches, logs, apt's
# and dpkg's records, scratch folders, the test's own files).
snapshot() {
    dpkg-query -W -f '${Package} ${db:Status-Abbrev}\n' | awk '$2 == "ii" {print $1}' |
        sort >"$1.packages"
    find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp \
        -o -path /var/tmp -o -path /var/cache -o -path /var/log -o -path /var/lib/apt \
        -o -path /var/lib/dpkg -o -path /root \) -prune -o -print | sort >"$1.files"
}

apt-get update -qq
# What every desktop machine has (systemd as its init: Debian 13 protects it from removal once
# in) and what the test itself uses (a display server) come first, so they are not counted as the
# package's.
apt-get install -y -qq --no-install-recommends systemd-sysv xvfb >/dev/null
snapshot /root/before

say "apt install ./$(basename "$folder"/velmora-audio-helper_*.deb) ./$(basename "$folder"/velmora-pass_*.deb)"
apt-get install -y -qq "$folder"/velmora-audio-helper_*.deb "$folder"/velmora-pass_*.deb >/root/apt-install.log ||
    fail "apt could not install the packages: $(cat /root/apt-install.log)"
[ -x /usr/bin/velmora-audio-helper ] || fail "no /usr/bin/velmora-audio-helper after the install"
installed_now=$(dpkg-query -W -f '${db:Status-Abbrev}\n' | grep -c '^ii')
say "installed, with the $((installed_now - $(wc -l </root/before.packages) - 2)) packages it needs"

user_home=$(mktemp -d)
export HOME=$user_home XDG_CONFIG_HOME=$user_home/.config XDG_STATE_HOME=$user_home/.local/state
log_file=$XDG_STATE_HOME/velmora-audio-helper/VelmoraAudioHelper.log
log_has() { grep -qF -- "$1" "$log_file" 2>/dev/null; }
velmora-pass keygen --out "$user_home/key.pem" >/dev/null
port=$((20000 + RANDOM % 30000))
velmora-audio-helper settings set port "$port" >/dev/null

# Starts the helper with the given arguments, checks that a page gets "hello" and that SIGTERM
# ends it with status 0; $1 names the run.
serve_and_end() {
    local what=$1
    shift
    velmora-audio-helper --no-welcome "$@" >"$user_home/$what.out" 2>&1 &
    local helper=$!
    wait_for log_has "Listening on ws://127.0.0.1:$port/" ||
        fail "$what: the helper did not listen: $(cat "$user_home/$what.out" "$log_file")"
    local output
    output=$(velmora-audio-helper listen --seconds 1 --port "$port" --key "$user_home/key.pem" 2>&1 || true)
    grep -q "^Connected to velmora-audio-helper .* (16000 Hz, 1 ch, f32le)" <<<"$output" ||
        fail "$what: a page got no hello: $output"
    kill -0 "$helper" 2>/dev/null || fail "$what: the helper ended by itself"
    if [ "$what" = "display" ]; then
        wait_for log_has "No system tray is available on this desktop" ||
            fail "display: the tray module did not show the status: $(cat "$user_home/$what.out" "$log_file")"
        ! log_has "status icons cannot be drawn" ||
            fail "display: the package's dependencies leave the tray without its icons"
    fi
    kill -TERM "$helper"
    local status=0
    wait "$helper" || status=$?
    [ "$status" -eq 0 ] || fail "$what: SIGTERM ended the helper with status $status: $(cat "$user_home/$what.out")"
    : >"$log_file"
}

serve_and_end headless --headless
say "headless: a page gets hello; SIGTERM ends it with status 0"

Xvfb -displayfd 3 -nolisten tcp 3>"$user_home/display" 2>/dev/null &
xvfb=$!
wait_for test -s "$user_home/display" || fail "Xvfb did not start"
DISPLAY=":$(cat "$user_home/display")" serve_and_end display
kill "$xvfb"
wait "$xvfb" 2>/dev/null || true
say "display (Xvfb, no tray): the tray module draws its icons and shows the status in its" \
    "window; a page gets hello; SIGTERM ends it with status 0"

cd /
rm -rf "$user_home"
dpkg -L velmora-audio-helper velmora-pass | sort -u >/root/package.files
apt-get remove -y -qq velmora-audio-helper velmora-pass >/dev/null
# Packages the install brought in are removed even where they would now satisfy a recommendation
# of a package that was there before (the test's own display server), which apt would keep.
apt-get autoremove --purge -y -qq -o APT::AutoRemove::RecommendsImportant=false \
    -o APT::AutoRemove::SuggestsImportant=false >/dev/null
snapshot /root/after
if ! diff -u /root/before.packages /root/after.packages; then
    fail "apt remove and autoremove left the installed packages changed (above)"
fi
# What the packages' own lists held, folders every root has aside, is gone.
left=$(while read -r path; do
    if [ -e "$path" ] && ! grep -qxF -- "$path" /root/before.files; then echo "$path"; fi
done </root/package.files)
[ -z "$left" ] || fail "apt remove left the packages' own paths behind: $left"
# Anything else the root gained, but for the backups adduser makes of the account files when a
# library's service (D-Bus) adds its system user, which its purge does not take back.
gained=$(comm -13 /root/before.files /root/after.files |
    grep -vxE '/etc/(shadow|gshadow|passwd|group)-' || true)
lost=$(comm -23 /root/before.files /root/after.files)
[ -z "$gained$lost" ] ||
    fail "apt remove and autoremove changed the root's paths: gained: $gained; lost: $lost"
say "apt remove and autoremove leave no path of the packages and the root as it was," \
    "but for the account files' backups ($(wc -l </root/before.files) paths compared)"
say "passed"
