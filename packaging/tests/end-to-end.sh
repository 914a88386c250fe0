#!/usr/bin/env bash
# End to end on this machine, as a user gets the helper:
#   1. builds the packages (the .debs, the tarball, the disk image) with the release preset and a
#      throwaway production key made for this run;
#   2. lintian finds no error and no hardening tag in the .debs and the helper's runs no ldconfig;
#      readelf finds the executable, the core library and the tray module linked with full RELRO
#      and immediate binding, the executable as PIE, the core's code in the core library alone;
#      no path of this machine is left in them; apt installs the packages; the installed helper
#      serves a page its "hello", refuses a pass signed with the committed development key and
#      streams to a page whose pass the throwaway key signed; dpkg -r removes them cleanly;
#   3. the disk image, mounted read-only through a loop device, starts the helper in the test mode
#      that answers "Install": the copy lands in /opt, the installed copy starts and serves, and
#      the image is detached.
# Step 3 runs in a private mount namespace with a scratch /opt, so a real /opt is never touched.
# Needs root (apt, loop mounts, namespaces), Xvfb, PulseAudio, openssl, lintian, and a build whose
# tray offers the install (VELMORA_GUI=ON).
#   packaging/tests/end-to-end.sh [BUILD_DIR]       (default build/packages)
#   VELMORA_PACKAGES_BUILD_ONLY=1 stops after step 1.
set -euo pipefail
cd "$(dirname "$0")/../.."

log_name=VelmoraAudioHelper.log
check_name=end-to-end
patience=30
source packaging/tests/check-steps.sh

free_port() {
    local port
    while :; do
        port=$((20000 + RANDOM % 30000))
        if ! (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
            echo "$port"
            return
        fi
    done
}

# A fresh set of per-user folders under $1 for the helper's settings, log and data.
private_user() {
    export HOME="$1/home"
    export XDG_CONFIG_HOME="$HOME/.config" XDG_STATE_HOME="$HOME/.local/state"
    export XDG_DATA_HOME="$HOME/.local/share"
    mkdir -p "$XDG_CONFIG_HOME" "$XDG_STATE_HOME" "$XDG_DATA_HOME"
}

log_has() { grep -qF -- "$1" "$XDG_STATE_HOME/velmora-audio-helper/$log_name" 2>/dev/null; }

# Connects like a page with a key the release build does not trust: "hello" comes before the
# pass is checked, so the greeting is all this looks for.
page_gets_hello() {
    local helper=$1 port=$2 key=$3 output
    output=$("$helper" listen --seconds 1 --port "$port" --key "$key" 2>&1 || true)
    grep -q "^Connected to velmora-audio-helper .* (16000 Hz, 1 ch, f32le)" <<<"$output" ||
        fail "no hello from the helper on port $port: $output"
}

# A private PulseAudio with a silent output, for the helper to capture from; sets PULSE_SERVER.
start_sound_server() {
    local folder=$1
    mkdir -p "$folder"
    cat >"$folder/default.pa" <<PA
load-module module-native-protocol-unix auth-anonymous=1 socket=$folder/native
load-module module-null-sink sink_name=speakers rate=48000 channels=2
set-default-sink speakers
PA
    pulseaudio -n --daemonize=no --exit-idle-time=-1 --disallow-exit --use-pid-file=no \
        --realtime=no --high-priority=no --log-target=stderr -F "$folder/default.pa" \
        >"$folder/pulseaudio.log" 2>&1 &
    sound_server=$!
    export PULSE_SERVER="unix:$folder/native"
    wait_for pactl info >/dev/null 2>&1 ||
        fail "the private PulseAudio did not start: $(cat "$folder/pulseaudio.log")"
}

# The packaged helper, serving on $2, trusts the build's production key alone: a page whose pass
# the committed development key signed is refused, a page whose pass the throwaway production key
# $3 signed gets audio.
helper_trusts_only_the_production_key() {
    local helper=$1 port=$2 production_key=$3 output
    local origin=https://app.velmora.example
    log_has "Trusting 1 pass-signing key, no development key" ||
        fail "the helper did not log that it trusts one key and no development key"
    if output=$("$helper" listen --seconds 1 --port "$port" --origin "$origin" \
        --key keys/dev-pass-key.DEVELOPMENT-ONLY.pem 2>&1); then
        fail "a pass signed with the development key was accepted: $output"
    fi
    grep -q "pass_invalid" <<<"$output" || fail "no pass_invalid for the development key: $output"
    log_has "Start refused for $origin: pass signature" ||
        fail "no refusal logged for the development key's pass"
    output=$("$helper" listen --seconds 1 --port "$port" --origin "$origin" \
        --key "$production_key" 2>&1) ||
        fail "a pass signed with the production key was refused: $output"
    grep -q "^Received 16000 samples" <<<"$output" || fail "no audio with the production key: $output"
    echo "end-to-end: the development key's pass is refused; the production key's pass streams"
}

# The packaged executable, core library and tray module: lintian's hardening tags, then what
# readelf shows, and that none names this machine's source or build folder.
check_hardening() {
    local deb=$1 build=$2 findings=$3 tree=$4
    if grep -E "hardening-" <<<"$findings"; then
        fail "lintian reports hardening tags (above)"
    fi
    dpkg-deb -x "$deb" "$tree"
    local executable="$tree/usr/bin/velmora-audio-helper"
    local module="$tree/usr/lib/velmora-audio-helper/modules/velmora-tray.so"
    local core="$tree/usr/lib/velmora-audio-helper/core/libvelmora-core.so"
    [ -f "$module" ] || fail "the package holds no tray module"
    [ -f "$core" ] || fail "the package holds no core library"
    check_core_once "$deb" "$executable" "$core" "$module"
    local file
    for file in "$executable" "$core" "$module"; do
        readelf -d "$file" | grep "BIND_NOW" >/dev/null || fail "$file is not linked with -z now"
        readelf -l "$file" | grep "GNU_RELRO" >/dev/null || fail "$file has no RELRO segment"
        readelf -W --dyn-syms "$file" | grep "__stack_chk_fail" >/dev/null || fail "$file has no stack protector"
    done
    # The executable is main() alone, with nothing to fortify; the code is in the other two.
    for file in "$core" "$module"; do
        readelf -W --dyn-syms "$file" | grep -E " __[a-z0-9_]+_chk(@|$)" >/dev/null ||
            fail "$file calls no fortified function"
    done
    readelf -h "$executable" | grep -E "Type: +DYN" >/dev/null || fail "$executable is not position-independent"
    readelf -d "$executable" | grep -E "FLAGS_1.*PIE" >/dev/null || fail "$executable is not marked PIE"
    readelf -n "$executable" | grep "x86 feature" || true
    for file in "$executable" "$core" "$module" "$build/src/app/velmora-audio-helper" \
        "$build/src/libvelmora-core.so"; do
        if strings -a "$file" | grep -F -e "$PWD" -e "dev-pass-key"; then
            fail "$file names this machine's source folder or the development key file (above)"
        fi
    done
    echo "end-to-end: hardened (BIND_NOW, RELRO, PIE, stack protector, fortified calls); no build path"
}

# The core is in the package once: the core library defines its symbols (the settings store for
# one), the executable and the tray module only use them (the module defines its entry point
# alone), and both find the library through run paths relative to themselves. A private library
# runs no ldconfig.
check_core_once() {
    local deb=$1 executable=$2 core=$3 module=$4 file
    local settings="_ZN7velmora14HelperSettings6sharedEv"
    nm -D --defined-only "$core" | grep " T $settings$" >/dev/null ||
        fail "the core library does not define HelperSettings::shared()"
    for file in "$executable" "$module"; do
        readelf -d "$file" | grep "NEEDED.*\[libvelmora-core.so\]" >/dev/null ||
            fail "$file does not link the core library"
        local defined
        # Strong definitions only: an inline function the compiler also emitted here (a weak
        # symbol) is resolved to one copy for the whole process.
        defined=$(nm -D --defined-only "$file" | grep -E " [TDBR] .*velmora" |
            grep -v " T velmora_run_tray$" || true)
        [ -z "$defined" ] || fail "$file defines symbols of the core: $defined"
        nm -D --undefined-only "$file" | grep velmora >/dev/null || fail "$file uses nothing of the core"
    done
    readelf -d "$executable" | grep 'RUNPATH.*\[\$ORIGIN/../lib/velmora-audio-helper/core\]' >/dev/null ||
        fail "the executable does not look for the core beside it: $(readelf -d "$executable" | grep RUNPATH)"
    readelf -d "$module" | grep 'RUNPATH.*\[\$ORIGIN/../core\]' >/dev/null ||
        fail "the tray module does not look for the core beside it: $(readelf -d "$module" | grep RUNPATH)"
    if dpkg-deb -I "$deb" | grep -E "ldconfig|postinst|postrm|triggers"; then
        fail "the package runs ldconfig or maintainer scripts (above)"
    fi
    echo "end-to-end: the core is in libvelmora-core.so alone; the executable and the tray link it"
}

# The processes whose executable is $1.
processes_of() {
    local process
    for process in /proc/[0-9]*; do
        [ "$(readlink "$process/exe" 2>/dev/null)" = "$1" ] && echo "${process#/proc/}"
    done
    return 0
}

image_part() {
    local build=$1 work=$2
    local image
    image=$(ls "$build"/velmora-audio-helper-*.iso)
    private_user "$work/image-user"
    mount -t tmpfs scratch-opt /opt
    # An install into /opt is for every user: its menu entry goes to /usr/local/share/applications
    # and a command link to /usr/local/bin; a scratch /usr/local/share keeps the real one as it was.
    mkdir -p /usr/local/share /usr/local/bin
    mount -t tmpfs scratch-share /usr/local/share

    local volume="$work/volume" source_image=$image
    mkdir -p "$volume"
    if ! grep -qw iso9660 /proc/filesystems; then
        # Some kernels (container and CI VMs) lack ISO 9660: the image's own tree, extracted with
        # its Rock Ridge modes, goes onto a small ext4 image that mounts the same way.
        echo "end-to-end: this kernel can't mount ISO 9660; using the image's tree on ext4"
        xorriso -osirrox on -indev "$image" -extract / "$work/image-tree" 2>/dev/null
        source_image="$work/image.ext4"
        mkfs.ext4 -q -d "$work/image-tree" "$source_image" 32M >/dev/null
    fi
    mount -o loop,ro "$source_image" "$volume"
    local device
    device=$(findmnt -n -o SOURCE "$volume")
    [ -x "$volume/velmora-audio-helper/bin/velmora-audio-helper" ] ||
        fail "the image holds no velmora-audio-helper/bin/velmora-audio-helper"

    Xvfb -displayfd 3 -nolisten tcp 3>"$work/display" 2>/dev/null &
    local xvfb=$!
    wait_for test -s "$work/display" || fail "Xvfb did not start"
    export DISPLAY=":$(cat "$work/display")"

    local port
    port=$(free_port)
    "$volume/velmora-audio-helper/bin/velmora-audio-helper" settings set port "$port" >/dev/null

    step "start the helper from the image ($device on $volume), answering Install"
    # From the image's own folder, as a file manager starts it; exec so $! is the helper itself.
    (cd "$volume" && VELMORA_INSTALLER_ANSWER=install \
        exec ./velmora-audio-helper/bin/velmora-audio-helper --no-welcome >"$work/image-run.txt" 2>&1) &
    local first=$!
    local deadline=$((SECONDS + patience))
    while kill -0 "$first" 2>/dev/null; do
        [ $SECONDS -lt $deadline ] ||
            fail "the helper on the image did not hand over (does this build offer the install?)"
        sleep 0.2
    done
    log_has "Running from a read-only location: $volume/velmora-audio-helper" ||
        fail "no read-only launch logged"
    log_has "Installed to /opt/velmora-audio-helper; ejecting $volume" ||
        fail "no install logged: $(cat "$XDG_STATE_HOME/velmora-audio-helper/$log_name")"

    local installed=/opt/velmora-audio-helper/bin/velmora-audio-helper
    wait_for log_has "Listening on ws://127.0.0.1:$port/" ||
        fail "the installed copy did not start listening"
    [ -n "$(processes_of "$installed")" ] || fail "no process runs $installed"
    page_gets_hello "$installed" "$port" "$work/key.pem"
    grep -q "^Exec=$installed$" /usr/local/share/applications/velmora-audio-helper.desktop ||
        fail "no menu entry for every user for the installed copy"
    [ "$(readlink /usr/local/bin/velmora-audio-helper)" = "$installed" ] ||
        fail "no command link to the installed copy in /usr/local/bin"
    rm /usr/local/bin/velmora-audio-helper
    wait_for bash -c "! mountpoint -q '$volume'" || fail "the image is still mounted at $volume"
    [ -z "$(losetup -j "$source_image")" ] || fail "the loop device still holds the image"
    echo "end-to-end: installed copy serves; the image is detached"

    kill $(processes_of "$installed") 2>/dev/null || true
    kill "$xvfb" 2>/dev/null || true
}

main() {
    [ "$(id -u)" -eq 0 ] || fail "needs root (apt, loop mounts, a private mount namespace)"
    local build=${1:-build/packages}

    local work
    work=$(mktemp -d)
    # shellcheck disable=SC2064
    trap "rm -rf '$work'" EXIT
    chmod 755 "$work"

    # A production key made for this run only: the release build refuses to configure without
    # one, and the packaged helper must trust it and nothing else.
    openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$work/production.pem"
    local production_key
    production_key=$(openssl pkey -in "$work/production.pem" -pubout -outform DER | tail -c 65 |
        base64 -w0)

    step "build the packages in $build"
    # With the test switches, so the install offer on the image can be answered unattended.
    cmake --preset release -B "$build" -DVELMORA_PRODUCTION_KEY="$production_key" \
        -DVELMORA_BUILD_TESTS=OFF -DVELMORA_BUILD_BENCHMARKS=OFF -DVELMORA_TEST_SWITCHES=ON >/dev/null
    cmake --build "$build" -j "$(nproc)" --target package >/dev/null
    local deb pass_deb
    deb=$(ls "$PWD/$build"/velmora-audio-helper_*.deb)
    pass_deb=$(ls "$PWD/$build"/velmora-pass_*.deb)
    ls -l "$deb" "$pass_deb" "$build"/velmora-audio-helper-*.tar.gz "$build"/velmora-audio-helper-*.iso
    # Built ahead (CI does, while other tests run); a later run rebuilds only what its key touches.
    [ -z "${VELMORA_PACKAGES_BUILD_ONLY:-}" ] || return 0

    step "lintian -I --pedantic; hardening"
    local findings
    findings=$(lintian -I --pedantic --fail-on error "$deb" "$pass_deb" 2>&1) ||
        fail "lintian: $findings"
    grep -v "^running with root" <<<"$findings" || true
    check_hardening "$deb" "$build" "$findings" "$work/deb-tree"

    step "apt-get install the packages"
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$deb" "$pass_deb" >/dev/null
    velmora-pass keygen --out "$work/key.pem" >/dev/null

    (
        private_user "$work/package-user"
        local sound_server="" helper=""
        trap 'kill $helper $sound_server 2>/dev/null || true' EXIT
        start_sound_server "$work/package-user/sound"
        local port
        port=$(free_port)
        velmora-audio-helper settings set port "$port" >/dev/null
        velmora-audio-helper --headless --no-welcome >/dev/null 2>&1 &
        helper=$!
        wait_for log_has "Listening on ws://127.0.0.1:$port/" ||
            fail "the installed package's helper did not log \"Listening on\""
        page_gets_hello velmora-audio-helper "$port" "$work/key.pem"
        helper_trusts_only_the_production_key velmora-audio-helper "$port" "$work/production.pem"
        kill "$helper"
        wait "$helper" || true
        helper=""
        echo "end-to-end: the package's helper serves"
    )

    step "dpkg -r"
    dpkg -r velmora-audio-helper velmora-pass >/dev/null
    for package in velmora-audio-helper velmora-pass; do
        status=$(dpkg-query -W -f='${db:Status-Abbrev}' "$package" 2>/dev/null || true)
        [ -z "$status" ] || [ "${status:0:2}" = "un" ] || fail "$package is left as \"$status\""
    done
    [ ! -e /usr/bin/velmora-audio-helper ] || fail "/usr/bin/velmora-audio-helper is left behind"
    [ ! -e /usr/share/applications/velmora-audio-helper.desktop ] || fail "menu entry left behind"

    step "the disk image hands over to an installed copy"
    unshare --mount --propagation private -- "$0" --image-part "$PWD/$build" "$work"
    echo "end-to-end: passed"
}

if [ "${1:-}" = "--image-part" ]; then
    image_part "$2" "$3"
else
    main "$@"
fi
