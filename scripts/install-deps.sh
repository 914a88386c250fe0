#!/usr/bin/env bash
# Installs everything the helper and its tests need from Debian 12's archive. Idempotent: when
# every package is present it prints nothing and touches nothing.
set -euo pipefail

packages=(
    # build
    cmake ninja-build g++ pkg-config clang-format
    # libraries
    libboost1.81-dev libboost-url1.81-dev libssl-dev nlohmann-json3-dev libsoxr-dev libpulse-dev
    libsystemd-dev
    # tests and benchmarks
    googletest libgtest-dev libgmock-dev libbenchmark-dev clang-14 libfuzzer-14-dev
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
)
# Node and npm may come with the machine; Debian's own are the fallback.
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
    packages+=(nodejs npm)
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
echo "Installing from Debian: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
