#!/usr/bin/env bash
# A release configure takes only a real production key and no development key: each bad setting
# stops the configure with a message that says what to pass, a good key passes, and a development
# build has no package target. The configures check the deployment values only, so each takes
# about a second.
# Usage: ReleaseConfigureTest.sh CMAKE SOURCE_DIR [DEV_BUILD_DIR]. Ends with "N passed, N failed".
set -uo pipefail
cmake="$1"
source_dir="$2"
dev_build="${3:-}"

work="$(mktemp -d /tmp/velmora-release-configure-test.XXXXXX)"
trap 'rm -rf "$work"' EXIT

source "$(dirname "${BASH_SOURCE[0]}")/tally.sh"

# Configures a fresh build folder with the arguments given; its output in $work/output.
configure() {
    rm -rf "$work/build"
    "$cmake" -S "$source_dir" -B "$work/build" -G Ninja -DVELMORA_CHECK_DEPLOYMENT_ONLY=ON "$@" \
        >"$work/output" 2>&1
}

# refused WHAT EXPECTED_TEXT CONFIGURE_ARGUMENTS...: the configure fails and says the text, and
# says what to pass.
refused() {
    local what="$1" expected="$2"
    shift 2
    if configure "$@"; then
        fail "$what: the configure succeeded"
        return
    fi
    # CMake wraps long messages; the checks read the message as one line.
    local message
    message="$(tr -s ' \n' ' ' <"$work/output")"
    if [[ "$message" != *"Release build refused"* || "$message" != *"$expected"* ]]; then
        fail "$what: no \"$expected\" in: $(cat "$work/output")"
    elif [[ "$message" != *"Pass -D"* ]]; then
        fail "$what: the message does not say what to pass: $(cat "$work/output")"
    else
        pass
    fi
}

release=(-DVELMORA_RELEASE=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo)
openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$work/key.pem" 2>/dev/null
point_of() { openssl pkey -in "$1" -pubout -outform DER | tail -c 65; }
good_key="$(point_of "$work/key.pem" | base64 -w0)"
committed_key="$(point_of "$source_dir/keys/dev-pass-key.DEVELOPMENT-ONLY.pem" | base64 -w0)"
[[ ${#good_key} -eq 88 && ${#committed_key} -eq 88 ]] || { echo "FAILED: no test keys" >&2; exit 1; }

# The release preset, as the package is built, and any configure that turns VELMORA_RELEASE on.
refused "release preset without a key" "VELMORA_PRODUCTION_KEY is empty" --preset release
refused "empty key" "VELMORA_PRODUCTION_KEY is empty" "${release[@]}" -DVELMORA_PRODUCTION_KEY=
refused "not base64" "is not standard base64" "${release[@]}" "-DVELMORA_PRODUCTION_KEY=not a key!"
refused "a PEM file's name" "is not standard base64" "${release[@]}" \
    "-DVELMORA_PRODUCTION_KEY=$work/key.pem"
refused "the point without its 0x04" "is not the base64 of 65 bytes" "${release[@]}" \
    "-DVELMORA_PRODUCTION_KEY=$(point_of "$work/key.pem" | tail -c 64 | base64 -w0)"
refused "base64 without its padding" "is not the base64 of 65 bytes" "${release[@]}" \
    "-DVELMORA_PRODUCTION_KEY=${good_key%=}"
refused "a compressed point's tag" "is not an uncompressed point" "${release[@]}" \
    "-DVELMORA_PRODUCTION_KEY=$({ printf '\002'; point_of "$work/key.pem" | tail -c 64; } | base64 -w0)"
refused "a point off the curve" "is not a P-256 public key" "${release[@]}" \
    "-DVELMORA_PRODUCTION_KEY=$({ printf '\004'; head -c 64 /dev/zero; } | base64 -w0)"
refused "the committed development key as production key" "is the committed development key" \
    "${release[@]}" "-DVELMORA_PRODUCTION_KEY=$committed_key"
refused "a development key beside a good key" "VELMORA_DEV_KEYS is set" --preset release \
    "-DVELMORA_PRODUCTION_KEY=$good_key" "-DVELMORA_DEV_KEYS=$committed_key"
refused "any development key" "VELMORA_DEV_KEYS is set" "${release[@]}" \
    "-DVELMORA_PRODUCTION_KEY=$good_key" "-DVELMORA_DEV_KEYS=$good_key"
refused "an unoptimised release" "CMAKE_BUILD_TYPE is \"Debug\"" --preset release \
    "-DVELMORA_PRODUCTION_KEY=$good_key" -DCMAKE_BUILD_TYPE=Debug

# A real key passes.
if configure --preset release "-DVELMORA_PRODUCTION_KEY=$good_key" &&
    grep -q "production pass key checked" "$work/output"; then
    pass
else
    fail "the release preset with a good key: $(cat "$work/output")"
fi
# A development configure takes the development key and needs no production key.
if configure --preset dev && ! grep -q "refused" "$work/output"; then
    pass
else
    fail "the dev preset: $(cat "$work/output")"
fi

# No package from a development build: it has no package target at all. (A release build's own
# run of this test passes no development build.)
if [[ -z "$dev_build" ]]; then
    :
elif targets="$("$cmake" --build "$dev_build" --target help 2>&1)" && [[ "$targets" == *"all"* ]]; then
    if grep -Eq '^(package|package_source)(:| )' <<<"$targets"; then
        fail "the development build $dev_build has a package target"
    else
        pass
    fi
else
    fail "could not list the targets of $dev_build: $targets"
fi

summary
