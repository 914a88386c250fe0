#!/usr/bin/env bash
# What streaming costs the headless helper next to parec, on a private sound server with a tone
# playing: CPU share of one core, resident memory (largest seen), wake-ups per second (voluntary
# context switches: a thread went to sleep and was woken) and, apart, involuntary ones (preemption,
# a sign of a loaded machine), summed over the process's threads and measured over the same span. The helper streams
# to one page stand-in (`velmora-audio-helper listen`); parec records the same monitor at 48 kHz
# stereo float with 10 ms fragments. The two run one after the other, so the sound server's own
# CPU is measured while it serves each alone. Figures, not a pass/fail test.
#
# usage: bench/capture-cost.sh HELPER [--seconds N] [--pipewire]
# The helper must accept the development pass key (a build with VELMORA_DEV_KEYS set).
set -euo pipefail

helper=${1:?usage: capture-cost.sh HELPER [--seconds N] [--pipewire]}
shift
seconds=20
kind=pulseaudio
while [[ $# -gt 0 ]]; do
    case $1 in
    --seconds) seconds=$2; shift 2 ;;
    --pipewire) kind=pipewire; shift ;;
    *) echo "unknown option $1" >&2; exit 2 ;;
    esac
done

dir=$(mktemp -d /tmp/velmora-capture-cost.XXXXXX)
children=()
cleanup() {
    for pid in "${children[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$dir"
}
trap cleanup EXIT

mkdir -p "$dir/runtime" "$dir/config" "$dir/state" "$dir/data" "$dir/home"
chmod 700 "$dir/runtime"
export HOME="$dir/home" XDG_RUNTIME_DIR="$dir/runtime" XDG_CONFIG_HOME="$dir/config"
export XDG_STATE_HOME="$dir/state" XDG_DATA_HOME="$dir/data"
server_pids=()
if [[ $kind == pulseaudio ]]; then
    cat >"$dir/default.pa" <<PA
load-module module-native-protocol-unix auth-anonymous=1 socket=$dir/native
load-module module-null-sink sink_name=speakers rate=48000 channels=2
set-default-sink speakers
PA
    export PULSE_SERVER="unix:$dir/native"
    pulseaudio -n --daemonize=no --exit-idle-time=-1 --use-pid-file=no --realtime=no \
        --high-priority=no -F "$dir/default.pa" >"$dir/server.log" 2>&1 &
    children+=($!)
    server_pids+=($!)
else
    mkdir -p "$dir/config/wireplumber/main.lua.d" "$dir/config/wireplumber/bluetooth.lua.d"
    printf 'alsa_monitor.enabled = false\nv4l2_monitor.enabled = false\nlibcamera_monitor.enabled = false\n' \
        >"$dir/config/wireplumber/main.lua.d/51-private.lua"
    echo 'bluez_monitor.enabled = false' >"$dir/config/wireplumber/bluetooth.lua.d/51-private.lua"
    export DBUS_SESSION_BUS_ADDRESS="unix:path=$dir/runtime/bus"
    dbus-daemon --session --nofork --nopidfile --address="$DBUS_SESSION_BUS_ADDRESS" \
        >"$dir/dbus.log" 2>&1 &
    children+=($!)
    sleep 0.3
    pipewire >"$dir/server.log" 2>&1 &
    children+=($!)
    server_pids+=($!)
    sleep 0.3
    wireplumber >"$dir/wireplumber.log" 2>&1 &
    children+=($!)
    pipewire-pulse >"$dir/pipewire-pulse.log" 2>&1 &
    children+=($!)
    server_pids+=($!)
    export PULSE_SERVER="unix:$dir/runtime/pulse/native"
fi
for _ in $(seq 100); do pactl info >/dev/null 2>&1 && break; sleep 0.1; done
if [[ $kind == pipewire ]]; then
    pactl load-module module-null-sink sink_name=speakers rate=48000 channels=2 >/dev/null
    for _ in $(seq 50); do pactl list short sinks | grep -q speakers && break; sleep 0.1; done
    pactl set-default-sink speakers
fi

sox -q -n -r 48000 -c 2 -t raw -e float -b 32 - synth 3600 sine 440 vol 0.5 2>/dev/null |
    pacat --playback --raw --format=float32le --rate=48000 --channels=2 --latency-msec=20 \
        --device=speakers &
children+=($!)

ticks=$(getconf CLK_TCK)
cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
# Summed over the process's threads (a process's own status counts its main thread only).
switches() {
    cat /proc/"$1"/task/*/status 2>/dev/null |
        awk -v kind="^$2_ctxt_switches" '$0 ~ kind {sum += $2} END {print sum}'
}
rss_kb() { awk '/^VmRSS/ {print $2}' "/proc/$1/status"; }
servers_ticks() {
    local sum=0
    for pid in "${server_pids[@]}"; do sum=$((sum + $(cpu_ticks "$pid"))); done
    echo "$sum"
}

# Measures `pid` over `seconds` after a settling second; prints one row.
measure() {
    local name=$1 pid=$2
    sleep 2
    local t0 s0 v0 n0 w0 peak=0
    t0=$(cpu_ticks "$pid"); s0=$(servers_ticks); w0=$(date +%s.%N)
    v0=$(switches "$pid" voluntary); n0=$(switches "$pid" nonvoluntary)
    for _ in $(seq "$seconds"); do
        sleep 1
        local rss; rss=$(rss_kb "$pid"); ((rss > peak)) && peak=$rss
    done
    local t1 s1 v1 n1 w1
    t1=$(cpu_ticks "$pid"); s1=$(servers_ticks); w1=$(date +%s.%N)
    v1=$(switches "$pid" voluntary); n1=$(switches "$pid" nonvoluntary)
    awk -v n="$name" -v t="$((t1 - t0))" -v s="$((s1 - s0))" -v v="$((v1 - v0))" \
        -v i="$((n1 - n0))" -v w="$(echo "$w1 - $w0" | bc)" -v hz="$ticks" -v rss="$peak" \
        'BEGIN {printf "%-30s cpu %5.2f %%  rss %5.1f MB  wake-ups %6.1f /s  preempted %5.1f /s  server cpu %5.2f %%\n",
                n, 100 * t / hz / w, rss / 1024, v / w, i / w, 100 * s / hz / w}'
}

port=$(( (RANDOM % 20000) + 30000 ))
"$helper" settings set port "$port" >/dev/null
"$helper" --headless --no-welcome >"$dir/helper.log" 2>&1 &
helper_pid=$!
children+=("$helper_pid")
for _ in $(seq 50); do (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break; sleep 0.1; done
sleep 1
echo "$kind, ${seconds} s each, tone playing"
measure "helper idle (no page)" "$helper_pid"
"$helper" listen --seconds $((seconds + 6)) --port "$port" >"$dir/listen.log" 2>&1 &
listen_pid=$!
children+=("$listen_pid")
measure "helper streaming to one page" "$helper_pid"
wait "$listen_pid" || true
tail -1 "$dir/listen.log"
parec --raw --format=float32le --rate=48000 --channels=2 --latency-msec=10 \
    --device=speakers.monitor >/dev/null &
parec_pid=$!
children+=("$parec_pid")
measure "parec 48 kHz stereo, 10 ms" "$parec_pid"
kill "$parec_pid"
parec --raw --format=float32le --rate=16000 --channels=1 --latency-msec=10 \
    --device=speakers.monitor >/dev/null &
parec_pid=$!
children+=("$parec_pid")
measure "parec 16 kHz mono, 10 ms" "$parec_pid"
kill "$parec_pid"
