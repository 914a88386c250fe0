#!/usr/bin/env bash
# Installs everything the helper and its tests need from the archive of the Debian release this
# machine runs: Debian 13 "trixie" or Debian 12 "bookworm". Idempotent: when every package is
# present it prints nothing and touches nothing. On any other system it says what it supports and
# exits with status 3, installing nothing.
#   VELMORA_OS_RELEASE=FILE   read the release from FILE instead of /etc/os-release
#   --print                   print the package list for this release and exit
set -euo pipefail

print_only=0
for argument in "$@"; do
    case "$argument" in
        --print) print_only=1 ;;
        *) echo "usage: scripts/install-deps.sh [--print]" >&2; exit 2 ;;
    esac
done

os_release=${VELMORA_OS_RELEASE:-/etc/os-release}
release_id="" release_codename="" release_name=""
if [ -r "$os_release" ]; then
    # Read in a subshell: the file's other variables stay out of this script.
    read -r release_id release_codename < <(
        # shellcheck disable=SC1090
        . "$os_release" && echo "${ID:-} ${VERSION_CODENAME:-}"
    )
    release_name=$(. "$os_release" && echo "${PRETTY_NAME:-${ID:-}}")
fi

# What differs between the releases: Boost (Debian 12's default is 1.74, older than the helper
# needs), where Qt's SVG plug-ins live, and the LLVM whose clang and libFuzzer the fuzz and
# thread-safety builds use; the unversioned `clang` package gives both releases the
# `clang`/`clang++` the presets name.
case "$release_id:$release_codename" in
    debian:trixie)
        # Debian 13's libqt6svg6 holds no plug-ins: the tray's SVG icons need qt6-svg-plugins.
        release_packages=(libboost-dev libboost-url-dev clang libfuzzer-19-dev libclang-rt-19-dev
            qt6-svg-plugins) ;;
    debian:bookworm)
        release_packages=(libboost1.81-dev libboost-url1.81-dev clang libfuzzer-14-dev
            libclang-rt-14-dev) ;;
    *)
        echo "install-deps: this script installs from Debian 13 (trixie) or Debian 12 (bookworm);" \
            "this machine is ${release_name:-an unknown system} (from $os_release)." >&2
        echo "install-deps: install the equivalents of the packages that" \
            "'VELMORA_OS_RELEASE=<a Debian os-release> scripts/install-deps.sh --print' lists" \
            "(Boost 1.81 or later with Boost.URL, OpenSSL 3, libsoxr, libpulse, libsystemd," \
            "Qt 6, GoogleTest, clang) and build with the presets." >&2
        exit 3 ;;
esac

packages=(
    # build
    cmake ninja-build g++ pkg-config clang-format
    # libraries
    libssl-dev nlohmann-json3-dev libsoxr-dev libpulse-dev libsystemd-dev
    # tests and benchmarks
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    # sound servers for the capture tests and the demo
    pulseaudio pulseaudio-utils pipewire pipewire-pulse wireplumber dbus-daemon dbus-bin
    sox espeak-ng procps
    # the browser test
    chromium
    # desktop entries as the desktop reads and launches them (gio, desktop-file-validate)
    libglib2.0-bin desktop-file-utils
    # a stand-in X session manager for the tray's session test
    libsm-dev libice-dev
    # the tray front end (its SVG status icons need the SVG icon engine, the panel the xcb
    # platform plugin) and its tests: offscreen and Xvfb displays, a private session bus
    # an XEmbed tray, screenshots; the X client library's headers for watching the XEmbed tray;
    # Wayland: Qt's platform plug-in and a compositor for the tests
    qt6-base-dev libqt6svg6 qt6-qpa-plugins xvfb trayer imagemagick xdotool libxcb1-dev
    qt6-wayland weston
    # packages: icons rendered from SVG, the disk image, package checks, the end-to-end test
    librsvg2-bin xorriso dpkg-dev lintian appstream e2fsprogs binutils
    # throwaway keys and certificates: the release configure test, the end-to-end test and the
    # browser test's https origin
    openssl
    "${release_packages[@]}"
)
# Node and npm may come with the machine; Debian's own are the fallback.
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
    packages+=(nodejs npm)
fi

if [ "$print_only" -eq 1 ]; then
    printf '%s\n' "${packages[@]}"
    exit 0
fi

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
echo "Installing from ${release_name}: ${missing[*]}"
# Another apt run (an unattended upgrade at boot) is waited for rather than failed on.
$sudo apt-get -o DPkg::Lock::Timeout=300 update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get -o DPkg::Lock::Timeout=300 install -y -qq \
    --no-install-recommends "${missing[@]}" >/dev/null
