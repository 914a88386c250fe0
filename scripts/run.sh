#!/usr/bin/env bash
# Sets up a fresh Debian 13 or 12 machine, builds the helper and runs it, with a short end-to-end
# demonstration and the demo page. Ctrl-C stops everything this script started.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

bash scripts/install-deps.sh
echo "== building (dev preset: the development pass key is built in)"
cmake --preset dev >/dev/null
cmake --build --preset dev -j "$(nproc)" --target velmora-audio-helper velmora-pass
helper="$root/build/dev/src/app/velmora-audio-helper"
source scripts/demo-settings.sh

children=()
cleanup() {
    for pid in "${children[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    demo_settings_end
}
trap cleanup EXIT
trap 'exit 0' INT TERM

# A desktop session has a sound server; a bare machine gets a private one with a null sink.
if ! pactl info >/dev/null 2>&1; then
    sound_dir=$(mktemp -d /tmp/velmora-demo-sound.XXXXXX)
    cat >"$sound_dir/default.pa" <<PA
load-module module-native-protocol-unix auth-anonymous=1 socket=$sound_dir/native
load-module module-null-sink sink_name=demo_speakers rate=48000 channels=2
set-default-sink demo_speakers
PA
    XDG_RUNTIME_DIR="$sound_dir" HOME="$sound_dir" pulseaudio -n --daemonize=no \
        --exit-idle-time=-1 --use-pid-file=no --realtime=no --high-priority=no \
        -F "$sound_dir/default.pa" >"$sound_dir/pulseaudio.log" 2>&1 &
    children+=($!)
    export PULSE_SERVER="unix:$sound_dir/native"
    for _ in $(seq 50); do pactl info >/dev/null 2>&1 && break; sleep 0.1; done
    echo "== no sound server answered: started a private PulseAudio with a null sink for the demo"
    echo "   (PULSE_SERVER=$PULSE_SERVER; its log is $sound_dir/pulseaudio.log)"
fi

# The demo's page is served from http://localhost, which the helper admits only when allowed.
# The demo allows it in a settings folder of its own, so the user's settings stay as they are.
if ! demo_settings_begin "$helper"; then
    echo "the demo's settings could not be prepared (is your settings file readable?)" >&2
    exit 1
fi
echo "== the demo's helper uses its own settings: a copy of yours (if any) in $demo_config_home,"
echo "   with http://localhost:* allowed for the demo page; deleted when the demo ends."
echo "   Your own settings are left as they are."

port=$("${demo_env[@]}" "$helper" settings | sed -n 's/^port: *\([0-9]*\).*/\1/p' | head -1)
port=${port:-52849}

# On a desktop the helper lives in the system tray; without a display it runs headless.
helper_mode=(--headless)
[ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && helper_mode=()
echo "== starting velmora-audio-helper on ws://127.0.0.1:$port/ (${helper_mode[*]:-in the tray})"
"${demo_env[@]}" "$helper" --no-welcome "${helper_mode[@]}" &
helper_pid=$!
children+=("$helper_pid")
for _ in $(seq 50); do
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break
    kill -0 "$helper_pid" 2>/dev/null || { echo "the helper exited; see its output above" >&2; exit 1; }
    sleep 0.1
done

echo "== end to end: a page stand-in listens for 5 s while espeak-ng speaks into the output"
(sleep 1 && espeak-ng -s 150 "Hello from the Velmora audio helper. This is what the other people in your meeting say." \
    --stdout 2>/dev/null | paplay 2>/dev/null) &
"$helper" listen --seconds 5 --port "$port" --out "$root/build/demo.wav" || true

echo "== demo page"
if (cd web && npm ci --no-audit --no-fund --loglevel=error >/dev/null && npm run --silent build >/dev/null); then
    VELMORA_DEMO_ORIGIN_ALLOWED=1 node web/demo/dist/server/server.js &
    children+=($!)
    demo_url="http://localhost:5180/"
    sleep 1
    if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && command -v xdg-open >/dev/null; then
        xdg-open "$demo_url" >/dev/null 2>&1 || true
    fi
    echo "   Open $demo_url in your browser (helper port $port)."
else
    echo "   (the demo page could not be built; the helper runs without it)"
fi

echo "== the helper is running; Ctrl-C stops it"
wait "$helper_pid"
