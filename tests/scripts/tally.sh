# Counts the checks of a test script and ends it with "N passed, N failed"; sourced.
passed=0
failed=0
pass() { passed=$((passed + 1)); }
fail() {
    echo "FAILED: $*" >&2
    failed=$((failed + 1))
}
# The last command of a script: the summary line, and a status that says whether all passed.
summary() {
    echo "$passed passed, $failed failed"
    [ "$failed" -eq 0 ]
}
