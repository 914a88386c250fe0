#!/usr/bin/env bash
# Takes the README's Wayland screenshot: the helper on Weston (its X11 back end on a private Xvfb
# display, which gives it a keyboard) with no panel, so after its wait for a tray it shows its
# window; the window's menu is opened from the keyboard and Weston's own screenshooter takes
# the shot. Usage: take-wayland-screenshot.sh HELPER_EXECUTABLE OUTPUT_FOLDER
set -euo pipefail
helper=$(realpath "$1")
out=$(realpath "$2")
work=$(mktemp -d /tmp/velmora-wayland-screenshot.XXXXXX)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

display=$((300 + $$ % 600))
while [ -e "/tmp/.X$display-lock" ]; do display=$((display + 1)); done
Xvfb ":$display" -nolisten tcp -noreset -screen 0 1024x768x24 >"$work/xvfb.log" 2>&1 &
pids+=($!)
mkdir -m 700 "$work/runtime"
cat >"$work/default.pa" <<PA
load-module module-native-protocol-unix auth-anonymous=1 socket=$work/native
load-module module-null-sink sink_name=speakers rate=48000 channels=2
PA
XDG_RUNTIME_DIR="$work/runtime" HOME="$work" pulseaudio -n --daemonize=no --exit-idle-time=-1 \
    --use-pid-file=no --realtime=no --high-priority=no -F "$work/default.pa" \
    >"$work/pulseaudio.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do [ -e "/tmp/.X11-unix/X$display" ] && [ -e "$work/native" ] && break; sleep 0.1; done

export XDG_RUNTIME_DIR="$work/runtime" HOME="$work"
DISPLAY=":$display" weston --backend=x11-backend.so --use-pixman --socket=wayland-velmora \
    --width=800 --height=600 --debug --idle-time=0 >"$work/weston.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do [ -e "$work/runtime/wayland-velmora" ] && break; sleep 0.1; done
compositor=$(DISPLAY=":$display" xwininfo -root -tree | awk '/"Weston Compositor/ {print $1; exit}')

export PULSE_SERVER="unix:$work/native" WAYLAND_DISPLAY=wayland-velmora
export XDG_CONFIG_HOME="$work/config" XDG_STATE_HOME="$work/state"
unset DBUS_SESSION_BUS_ADDRESS DISPLAY
port=$((41000 + $$ % 2000))
mkdir -p "$XDG_CONFIG_HOME/velmora-audio-helper"
echo "{\"port\": $port, \"hasShownWelcome\": true}" >"$XDG_CONFIG_HOME/velmora-audio-helper/settings.json"
"$helper" --no-install >"$work/helper.log" 2>&1 &
pids+=($!)
for _ in $(seq 300); do
    grep -q "showing the status in a window" "$XDG_STATE_HOME/velmora-audio-helper/VelmoraAudioHelper.log" \
        2>/dev/null && break
    sleep 0.1
done
sleep 1
# The window has the focus, and its menu button the window's: space opens the menu.
DISPLAY=":$display" xdotool windowfocus --sync "$compositor" key space
sleep 1
(cd "$work" && weston-screenshooter)
mv "$work"/wayland-screenshot-*.png "$out/tray-wayland-window.png"
echo "screenshot in $out/tray-wayland-window.png"
