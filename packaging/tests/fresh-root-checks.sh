#!/usr/bin/env bash
# The checks fresh-root-install.sh runs inside a fresh Debian root: install the packages in
# FOLDER with apt as a user would, run the helper headless and with a display, remove them and
# compare the root with how it was.   fresh-root-checks.sh FOLDER
set -euo pipefail
folder=$1
export DEBIAN_FRONTEND=noninteractive
patience=30

fail() {
    echo "fresh-root-install: FAILED: $*" >&2
    exit 1
}
say() { echo "fresh-root-install: $*"; }
wait_for() {
    local deadline=$((SECONDS + patience))
    until "$@"; do
        [ $SECONDS -lt $deadline ] || return 1
        sleep 0.2
    done
}

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
# What the test itself uses (a display server) comes first, so it is not counted as the package's.
apt-get install -y -qq --no-install-recommends xvfb >/dev/null
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
apt-get remove -y -qq velmora-audio-helper velmora-pass >/dev/null
apt-get autoremove --purge -y -qq >/dev/null
snapshot /root/after
if ! diff -u /root/before.packages /root/after.packages; then
    fail "apt remove and autoremove left packages installed (above)"
fi
if ! diff -u /root/before.files /root/after.files; then
    fail "apt remove and autoremove left paths behind (above)"
fi
say "apt remove and autoremove leave the root as it was ($(wc -l </root/before.files) paths compared)"
say "passed"
