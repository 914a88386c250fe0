#!/usr/bin/env bash
# Sets up a fresh Debian 13 or 12 machine and runs the whole test suite.
#   scripts/test.sh              debug build: unit, integration, sound-server and browser tests
#   scripts/test.sh --packages   the same, then this release's packages: built, checked and
#                                installed on this machine (as root; packaging/tests/end-to-end.sh)
#   scripts/test.sh --benchmarks the same, then a short run of the benchmarks
#   scripts/test.sh --checks     instead of the debug run: the ASan+UBSan run (every test), TSan on
#                                the threaded parts, the fuzzers (built by clang with its
#                                thread-safety analysis) and the packages (as root: end to end
#                                here, and apt install, run and remove in a fresh root of this
#                                release). CI uses it where the ASan run stands for the debug run.
#   scripts/test.sh --full       all of the above
# --packages and --benchmarks combine. Each step says how long it took, for CI's logs.
set -euo pipefail
cd "$(dirname "$0")/.."

debug_run=1
packages=0
benchmarks=0
checks=0
for argument in "$@"; do
    case "$argument" in
        --full) packages=1 benchmarks=1 checks=1 ;;
        --packages) packages=1 ;;
        --benchmarks) benchmarks=1 ;;
        --checks) checks=1 packages=1 debug_run=0 ;;
        *) echo "usage: scripts/test.sh [--packages] [--benchmarks] | --checks | --full" >&2
           exit 2 ;;
    esac
done
if [ "$debug_run" -eq 0 ] && [ "$#" -ne 1 ]; then
    echo "scripts/test.sh: --checks takes no other option" >&2
    exit 2
fi

# A second's check before the long build: the portable core includes no Linux-only header.
bash scripts/check-portable-core.sh

bash scripts/install-deps.sh
jobs=$(nproc)

step_started=0
step_done() {
    echo "== $1: $((SECONDS - step_started)) s (${SECONDS} s since the start)"
    step_started=$SECONDS
}
step_done "dependencies"

# Builds a preset (all targets, or the ones named) and runs its tests. A test that fails is run
# again once before it counts as failed: the sound-server and socket tests share two cores with
# everything else, and a rerun tells a real failure from a starved one.
run_preset() {
    local preset=$1
    shift
    local targets=()
    for target in "$@"; do targets+=(--target "$target"); done
    echo "== ${preset}: configure and build"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" -j "$jobs" "${targets[@]}"
    echo "== ${preset}: tests"
    ctest --preset "$preset" -j "$jobs" --repeat until-pass:2 -E '_NOT_BUILT$'
    step_done "$preset"
}

# The page side against the helper and pass tool of a build.
run_page_side() {
    [ -f web/run-tests.sh ] || return 0
    echo "== page side: client library, pass issuing and the browser test ($1)"
    VELMORA_HELPER="$PWD/$1/src/app/velmora-audio-helper" \
VELMORA_PASS_TOOL="$PWD/$1/tools/velmora-pass/velmora-pass" \
        bash web/run-tests.sh
    step_done "page side"
}

export LSAN_OPTIONS="suppressions=$PWD/tests/sanitizers/lsan.supp:print_suppressions=0"
export TSAN_OPTIONS="suppressions=$PWD/tests/sanitizers/tsan.supp"

if [ "$debug_run" -eq 1 ]; then
    run_preset dev
    run_page_side build/dev
fi

if [ "$packages" -eq 1 ]; then
    if [ "$(id -u)" -ne 0 ]; then
        echo "the package tests need root (apt, loop mounts, chroot)" >&2
        exit 1
    fi
    echo "== packages: build, lintian, apt install, run, remove; the disk image's hand-over"
    bash packaging/tests/end-to-end.sh build/packages
    step_done "packages"
fi

if [ "$checks" -eq 1 ]; then
    echo "== packages: apt install, run and remove in a fresh root of this release"
    bash packaging/tests/fresh-root-install.sh build/packages/velmora-audio-helper_*.deb \
        build/packages/velmora-pass_*.deb
    step_done "packages in a fresh root"

    run_preset asan
    # Without the debug run, the page side meets the ASan build's helper.
    [ "$debug_run" -eq 1 ] || run_page_side build/asan
    # The threaded parts: queues, capture, server, the sound-server tests, the WebSocket stack and
    # the headless helper (the demo's settings test runs it); the preset builds without the tray.
    run_preset tsan config_tests capture_tests server_tests capture_pulse_tests \
        meetings_pulse_tests conformance_tests ws-conformance-server velmora-audio-helper

    if [ -f fuzz/run-all.sh ]; then
        # The fuzz preset is clang's build of the whole helper: it also runs clang's thread-safety
        # analysis (what the threads preset checks), so one clang build serves both.
        echo "== fuzzers, built with clang's thread-safety analysis: 30 s each from the seed corpus"
        cmake --preset fuzz >/dev/null
        cmake --build --preset fuzz -j "$jobs"
        bash fuzz/run-all.sh build/fuzz 30
        step_done "fuzzers"
    fi
fi

if [ "$benchmarks" -eq 1 ]; then
    echo "== benchmarks (short run, no time assertion)"
    for benchmark in build/dev/bench/*_benchmark; do
        [ -x "$benchmark" ] && "$benchmark" --benchmark_min_time=0.05
    done
    # What streaming costs next to parec, briefly and from the debug build: figures to read, not
    # to judge (bench/streaming-cost --help for a full run on a release build).
    bash bench/streaming-cost --build build/dev --seconds 5 --clicks 10 ||
        echo "(streaming-cost could not run; no figure)"
    step_done "benchmarks"
fi
