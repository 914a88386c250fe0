#!/usr/bin/env bash
# Runs every fuzzer for a while, each from a scratch copy of its committed seed corpus (so runs
# never grow the committed corpus), and fails if any of them finds a crash, a leak, undefined
# behaviour, a hang or a broken invariant.
#
#   bash fuzz/run-all.sh <build-dir> <seconds-per-fuzzer>      e.g. bash fuzz/run-all.sh build/fuzz 60
#
# Inputs that fail are kept under <build-dir>/fuzz-findings/<fuzzer>/; reproduce one with
#   <build-dir>/fuzz/<fuzzer> <file>        (VELMORA_FUZZ_VERBOSE=1 describes what it led to)
set -uo pipefail

if [ $# -ne 2 ] || ! [[ $2 =~ ^[0-9]+$ ]]; then
    echo "usage: fuzz/run-all.sh <build-dir> <seconds-per-fuzzer>" >&2
    exit 2
fi
build=$(cd "$1" && pwd) || exit 2
seconds=$2
here=$(cd "$(dirname "$0")" && pwd)

# Fuzzer and its largest input: an upgrade request must be able to exceed the 8 KiB header cap.
fuzzers=(
    "page_message_fuzzer 4096"
    "upgrade_request_fuzzer 16384"
    "websocket_frames_fuzzer 4096"
)

scratch=$(mktemp -d "${TMPDIR:-/tmp}/velmora-fuzz.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
failed=()

for entry in "${fuzzers[@]}"; do
    read -r name max_len <<<"$entry"
    binary="$build/fuzz/$name"
    if [ ! -x "$binary" ]; then
        echo "== $name: not built ($binary is missing)" >&2
        failed+=("$name")
        continue
    fi
    corpus="$scratch/$name/corpus"
    findings="$build/fuzz-findings/$name"
    mkdir -p "$corpus" "$findings"
    cp "$here/corpus/$name"/* "$corpus/"
    options=(
        -max_total_time="$seconds"
        -max_len="$max_len"
        -timeout=20
        -rss_limit_mb=2048
        -print_final_stats=1
        -artifact_prefix="$findings/"
    )
    dictionary="$here/dictionaries/$name.dict"
    [ -f "$dictionary" ] && options+=(-dict="$dictionary")

    echo "== $name: ${seconds} s from $(ls "$corpus" | wc -l) seeds"
    log="$scratch/$name.log"
    ASAN_OPTIONS="${ASAN_OPTIONS:-abort_on_error=1:detect_leaks=1}" \
    UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}" \
        "$binary" "${options[@]}" "$corpus" >"$log" 2>&1
    status=$?
    grep -E '^(#[0-9]+ +DONE|stat::number_of_executed_units|stat::average_exec_per_sec|stat::peak_rss_mb)' "$log"
    if [ $status -ne 0 ]; then
        echo "== $name FAILED (exit $status); the end of its output:" >&2
        tail -n 80 "$log" >&2
        cp "$log" "$findings/output.log"
        failed+=("$name")
    else
        echo "== $name: no findings"
    fi
done

if [ ${#failed[@]} -ne 0 ]; then
    echo "fuzzers with findings: ${failed[*]} (inputs in $build/fuzz-findings/)" >&2
    exit 1
fi
echo "all fuzzers ran ${seconds} s each without findings"
