#!/usr/bin/env bash
# Tests of the page side (web/): the unit tests always; the browser test against the real helper
# when VELMORA_HELPER names its executable (a build with the dev preset, which trusts the
# committed development key). VELMORA_PASS_TOOL may name velmora-pass for the agreement tests;
# VELMORA_HELPER_ARGS replaces the helper's arguments for the test (default "--no-welcome").
# Ends with the line "N passed, N failed" and exits non-zero when anything failed.
set -uo pipefail
cd "$(dirname "$0")"

passed=0
failed=0
skipped=0
results="$(mktemp -d)"
trap 'rm -rf "$results"' EXIT

step_failed() {
    echo "web: $1 FAILED" >&2
    failed=$((failed + 1))
}

# Adds a vitest JSON report's counts to the totals.
count() {
    local report="$1"
    if [[ ! -s "$report" ]]; then
        step_failed "$2 (no test report)"
        return
    fi
    local counts
    counts="$(node -e '
        const r = JSON.parse(require("fs").readFileSync(process.argv[1], "utf8"));
        const skipped = r.numPendingTests + r.numTodoTests;
        // A file that failed to load has no failed test of its own: count it as one.
        const broken = r.testResults.filter((f) => f.status === "failed" && f.assertionResults.every((a) => a.status !== "failed")).length;
        console.log(r.numPassedTests, r.numFailedTests + broken, skipped);
    ' "$report")" || { step_failed "$2 (unreadable test report)"; return; }
    read -r p f s <<<"$counts"
    passed=$((passed + p))
    failed=$((failed + f))
    skipped=$((skipped + s))
}

echo "web: installing packages (npm ci)"
if ! npm ci --no-audit --no-fund --loglevel=error >"$results/npm-ci.log" 2>&1; then
    cat "$results/npm-ci.log" >&2
    step_failed "npm ci"
    echo "$passed passed, $failed failed"
    exit 1
fi

echo "web: building and type-checking"
if ! npm run --silent build >"$results/build.log" 2>&1; then
    cat "$results/build.log" >&2
    step_failed "build"
fi
if ! npm run --silent typecheck >"$results/typecheck.log" 2>&1; then
    cat "$results/typecheck.log" >&2
    step_failed "type check"
fi

echo "web: unit tests"
npx vitest run --config vitest.config.ts --reporter=default --reporter=json \
    --outputFile.json="$results/unit.json"
count "$results/unit.json" "unit tests"

if [[ -n "${VELMORA_HELPER:-}" ]]; then
    echo "web: browser test with the helper at $VELMORA_HELPER"
    npx vitest run --config e2e/vitest.config.ts --reporter=default --reporter=json \
        --outputFile.json="$results/e2e.json"
    count "$results/e2e.json" "browser test"
else
    echo "web: browser test not run (set VELMORA_HELPER to the velmora-audio-helper executable)"
fi

if ((skipped > 0)); then
    echo "$passed passed, $failed failed, $skipped skipped"
else
    echo "$passed passed, $failed failed"
fi
((failed == 0))
