# What the package tests share; sourced after setting check_name (the name their lines start
# with) and patience (seconds a wait may take).

fail() {
    echo "$check_name: FAILED: $*" >&2
    exit 1
}
step() { echo "== $check_name: $*"; }
say() { echo "$check_name: $*"; }

# Waits up to $patience seconds for a command to succeed.
wait_for() {
    local deadline=$((SECONDS + patience))
    until "$@"; do
        [ $SECONDS -lt $deadline ] || return 1
        sleep 0.2
    done
}
