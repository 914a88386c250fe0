# Sourced by run.sh: gives the demo's helper its own settings folder, so the demo can allow its
# page without touching the user's own settings. The folder starts as a copy of the user's
# settings (same port, same allowed origins) and is deleted when the demo ends.

# The user's settings file, as the helper finds it.
user_settings_file() {
    local base="${XDG_CONFIG_HOME:-}"
    [[ "$base" == /* ]] || base="$HOME/.config"
    echo "$base/velmora-audio-helper/settings.json"
}

# Makes the demo's settings folder and allows the demo page's origin there. $1 is the helper
# executable. Sets demo_env: prefix a helper command with "${demo_env[@]}" to give it the demo's
# settings. Only the helper gets them: a browser or anything else the demo starts keeps the user's
# own configuration folder. (A prefix, not a function, so that a helper started in the background
# is the process $! names.)
demo_settings_begin() {
    local helper="$1"
    local user_file
    user_file="$(user_settings_file)"
    demo_config_home="$(mktemp -d /tmp/velmora-demo-settings.XXXXXX)"
    mkdir -p "$demo_config_home/velmora-audio-helper"
    if [[ -f "$user_file" ]]; then
        cp "$user_file" "$demo_config_home/velmora-audio-helper/settings.json"
    fi
    demo_env=(env "XDG_CONFIG_HOME=$demo_config_home")
    "${demo_env[@]}" "$helper" settings add-origin 'http://localhost:*' >/dev/null
}

# Deletes the demo's settings folder. Safe to call more than once, and before begin.
demo_settings_end() {
    if [[ -n "${demo_config_home:-}" ]]; then
        rm -rf "$demo_config_home"
        demo_config_home=""
    fi
}
