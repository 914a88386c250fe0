#!/usr/bin/env bash
# Takes the README's tray screenshots on a private Xvfb display with trayer as the panel and a
# private PulseAudio: the menu open, the menu while a page streams, and the port dialog.
# Usage: take-screenshots.sh HELPER_EXECUTABLE OUTPUT_FOLDER
set -euo pipefail
helper=$(realpath "$1")
out=$(realpath "$2")
work=$(mktemp -d /tmp/velmora-screenshots.XXXXXX)
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

export DISPLAY=":$display" PULSE_SERVER="unix:$work/native" XDG_RUNTIME_DIR="$work/runtime"
export HOME="$work" XDG_CONFIG_HOME="$work/config" XDG_STATE_HOME="$work/state"
unset DBUS_SESSION_BUS_ADDRESS WAYLAND_DISPLAY
port=$((41000 + $$ % 2000))
mkdir -p "$XDG_CONFIG_HOME/velmora-audio-helper"
echo "{\"port\": $port, \"hasShownWelcome\": true}" >"$XDG_CONFIG_HOME/velmora-audio-helper/settings.json"

trayer --edge top --align right --widthtype pixel --width 240 --height 28 --tint 0xe5e9f0 \
    --transparent true --alpha 0 >"$work/trayer.log" 2>&1 &
pids+=($!)
sleep 1
"$helper" --no-install >"$work/helper.log" 2>&1 &
pids+=($!)
sleep 3

# The icon sits at the panel's right end.
icon_x=1010
icon_y=14
shot() {
    sleep 1
    import -window root -crop 520x330+504+0 +repage "$out/$1"
}

xdotool mousemove $icon_x $icon_y click 1
shot tray-menu.png
xdotool key Escape

"$helper" listen --seconds 20 --port "$port" >"$work/listen.log" 2>&1 &
pids+=($!)
sleep 3
xdotool mousemove $icon_x $icon_y click 1
shot tray-streaming.png
xdotool key Escape
sleep 0.5

xdotool mousemove $icon_x $icon_y click 1
sleep 1
xdotool key Down Down Return
sleep 1
dialog=$(xdotool search --onlyvisible --name '^Velmora Audio Helper$' | tail -1)
import -window "$dialog" "$out/port-dialog.png"
xdotool key Escape
echo "screenshots in $out"
