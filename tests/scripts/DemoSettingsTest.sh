#!/usr/bin/env bash
# The demo's settings handling (scripts/demo-settings.sh, as scripts/run.sh uses it) with the real
# helper: the demo's helper admits the demo page and keeps the user's port, and the user's
# settings.json is byte for byte as it was after the demo ends by Ctrl-C; a user without settings
# still has none. Usage: DemoSettingsTest.sh HELPER REPOSITORY. Ends with "N passed, N failed".
set -uo pipefail
helper="$1"
repository="$2"

work="$(mktemp -d /tmp/velmora-demo-settings-test.XXXXXX)"
demo_pid=""
finish() {
    [[ -n "$demo_pid" ]] && kill -KILL "$demo_pid" 2>/dev/null
    # A helper that outlived its demo (a failed check above) goes too.
    [[ -s "$work/helper-pid" ]] && kill -KILL "$(cat "$work/helper-pid")" 2>/dev/null
    rm -rf "$work"
}
trap finish EXIT

passed=0
failed=0
check() {
    local what="$1"
    shift
    if "$@"; then
        passed=$((passed + 1))
    else
        echo "FAILED: $what" >&2
        failed=$((failed + 1))
    fi
}

free_port() {
    local port
    for _ in $(seq 100); do
        port=$((20000 + RANDOM % 30000))
        if ! (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
            echo "$port"
            return
        fi
    done
    return 1
}

listening() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# Waits up to $2 seconds for the command in $1 to succeed.
wait_until() {
    local deadline=$((SECONDS + $2))
    while ((SECONDS < deadline)); do
        eval "$1" && return 0
        sleep 0.1
    done
    return 1
}

# The demo as run.sh runs it: settings prepared, the helper started (unless $1 is "no-helper"),
# Ctrl-C ends it all. Job control gives the background demo its own process group, in which SIGINT is not ignored.
start_demo() {
    set -m
    bash -c '
        source "$1/scripts/demo-settings.sh"
        helper_pid=""
        cleanup() { [[ -n "$helper_pid" ]] && kill "$helper_pid" 2>/dev/null; wait; demo_settings_end; }
        trap cleanup EXIT
        trap "exit 0" INT TERM
        demo_settings_begin "$2" || exit 1
        echo "$demo_config_home" >"$3/demo-config-home"
        "${demo_env[@]}" "$2" settings >"$3/demo-settings.txt"
        printenv XDG_CONFIG_HOME >"$3/browser-config-home"  # as the browser run.sh opens sees it
        if [[ "$4" == no-helper ]]; then
            sleep 60 &
        else
            "${demo_env[@]}" "$2" --no-welcome --no-install &
        fi
        helper_pid=$!
        echo "$helper_pid" >"$3/helper-pid"
        wait "$helper_pid"
    ' demo "$repository" "$helper" "$work" "${1:-}" &
    demo_pid=$!
    set +m
}

stop_demo() {
    kill -INT "$demo_pid"
    wait "$demo_pid" 2>/dev/null
    demo_pid=""
}

export HOME="$work/home"
export XDG_STATE_HOME="$work/state"
unset XDG_CONFIG_HOME
mkdir -p "$HOME"
user_file="$HOME/.config/velmora-audio-helper/settings.json"

# A user with settings of their own.
port="$(free_port)" || { echo "no free port" >&2; exit 1; }
"$helper" settings set port "$port" >/dev/null
"$helper" settings add-origin 'https://example.test' >/dev/null
cp -p "$user_file" "$work/original.json"

start_demo
check "the demo's helper listens on the user's port" wait_until "listening $port" 30
check "the demo's helper allows the demo page" grep -q 'http://localhost:\*' "$work/demo-settings.txt"
check "the demo's helper keeps the user's other origins" grep -q 'https://example.test' "$work/demo-settings.txt"
demo_config_home="$(cat "$work/demo-config-home" 2>/dev/null)"
check "the demo's settings folder is not the user's" test -n "$demo_config_home" -a "$demo_config_home" != "$HOME/.config"
check "other programs the demo starts keep the user's configuration folder" \
    test ! -s "$work/browser-config-home"
stop_demo
check "Ctrl-C stops the demo's helper" wait_until "! listening $port" 30
check "the demo's settings folder is gone after Ctrl-C" test ! -e "$demo_config_home"
check "the user's settings.json is byte for byte as it was" cmp -s "$user_file" "$work/original.json"
check "the user's settings do not allow the demo page" \
    bash -c '! "$1" settings | grep -q "http://localhost"' check "$helper"

# A user without settings: the demo leaves none behind.
# No helper here: it would listen on the default port, which this machine may be using.
rm -rf "$HOME/.config" "$work/demo-settings.txt"
start_demo no-helper
check "the demo's settings allow the page without user settings" wait_until "test -s '$work/demo-settings.txt' && grep -q 'http://localhost:\*' '$work/demo-settings.txt'" 30
stop_demo
check "a user without settings still has no settings file" test ! -e "$user_file"

echo "$passed passed, $failed failed"
((failed == 0))
