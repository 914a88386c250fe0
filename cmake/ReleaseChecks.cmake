# What a release build must be given. A release is recognised by VELMORA_RELEASE alone (the
# `release` preset turns it on); only a release build has the `package` target, so no package
# can carry a development key or miss the production key.
#
# A release configure stops here, with what to pass, when the production key is empty or not a
# P-256 public key in the form the helper reads, when it is the committed development key, or
# when any development key is set.

# The public half of keys/dev-pass-key.DEVELOPMENT-ONLY.pem (the release configure test checks
# that the two agree).
set(velmoraCommittedDevelopmentKey
    "BFDpTD+MllJzOVHxEDPbzbUa2TnbCTwuvDzsojCrdblSuJoEpyHUhq7gIjXg51AiheCuAvQPGWFgCxEDu6g1bL0=")

set(velmoraKeyHowTo
    "Pass -DVELMORA_PRODUCTION_KEY=<key>: the web application's pass-signing public key, standard \
base64 of the 65-byte uncompressed P-256 point (0x04, X, Y), 88 characters. \
`velmora-pass keygen --out key.pem` makes a key pair and prints that value; \
`velmora-issue-pass public-key --key key.pem` prints it for an existing key.")

function(velmora_refuse_release problem)
    message(FATAL_ERROR "Release build refused: ${problem}\n${ARGN}")
endfunction()

function(velmora_check_release_values)
    if(VELMORA_DEV_KEYS)
        velmora_refuse_release(
            "VELMORA_DEV_KEYS is set (\"${VELMORA_DEV_KEYS}\"); anyone holding a development \
key could sign passes for a release."
            "Pass -DVELMORA_DEV_KEYS= (empty) for a release, or build without -DVELMORA_RELEASE=ON.")
    endif()

    set(key "${VELMORA_PRODUCTION_KEY}")
    if(key STREQUAL "")
        velmora_refuse_release("VELMORA_PRODUCTION_KEY is empty." "${velmoraKeyHowTo}")
    endif()
    # 65 bytes make 88 characters with one "=": the first byte 0x04 reads "B" and a character of
    # A-P; the last byte's unused low bits are zero, so the 87th character is one of 16.
    if(NOT key MATCHES "^[A-Za-z0-9+/]+=*$")
        velmora_refuse_release("VELMORA_PRODUCTION_KEY is not standard base64 (\"${key}\")."
                               "${velmoraKeyHowTo}")
    endif()
    string(LENGTH "${key}" length)
    if(NOT length EQUAL 88 OR NOT key MATCHES "^[A-Za-z0-9+/]+[AEIMQUYcgkosw048]=$")
        velmora_refuse_release(
            "VELMORA_PRODUCTION_KEY is not the base64 of 65 bytes (${length} characters: \"${key}\")."
            "${velmoraKeyHowTo}")
    endif()
    if(NOT key MATCHES "^B[A-P]")
        velmora_refuse_release(
            "VELMORA_PRODUCTION_KEY is not an uncompressed point: its first byte is not 0x04."
            "${velmoraKeyHowTo}")
    endif()
    if(key STREQUAL velmoraCommittedDevelopmentKey)
        velmora_refuse_release(
            "VELMORA_PRODUCTION_KEY is the committed development key, whose private half is public."
            "${velmoraKeyHowTo}")
    endif()

    # Whether the point is on the curve, checked by the same code the helper loads its keys with.
    find_package(OpenSSL 3 REQUIRED)
    set(checkFolder ${PROJECT_BINARY_DIR}/CMakeFiles/VelmoraPassKeyCheck)
    try_run(keyRuns keyCompiles ${checkFolder}
        SOURCES ${PROJECT_SOURCE_DIR}/cmake/checks/PassKeyCheck.cpp
                ${PROJECT_SOURCE_DIR}/src/access/Base64.cpp
                ${PROJECT_SOURCE_DIR}/src/access/VerificationKey.cpp
        CMAKE_FLAGS "-DINCLUDE_DIRECTORIES=${PROJECT_SOURCE_DIR}/src"
        LINK_LIBRARIES OpenSSL::Crypto
        CXX_STANDARD 20
        COMPILE_OUTPUT_VARIABLE compileOutput
        RUN_OUTPUT_VARIABLE runOutput
        ARGS "${key}")
    if(NOT keyCompiles)
        message(FATAL_ERROR "Could not build the pass key check:\n${compileOutput}")
    endif()
    if(NOT keyRuns EQUAL 0)
        velmora_refuse_release(
            "VELMORA_PRODUCTION_KEY is not a P-256 public key: ${runOutput}" "${velmoraKeyHowTo}")
    endif()
    message(STATUS "Release build: production pass key checked, no development key")
endfunction()

if(VELMORA_RELEASE)
    velmora_check_release_values()
    # The hardening flags need optimisation (_FORTIFY_SOURCE does nothing without it).
    if(NOT CMAKE_BUILD_TYPE MATCHES "^(RelWithDebInfo|Release|MinSizeRel)$")
        velmora_refuse_release(
            "CMAKE_BUILD_TYPE is \"${CMAKE_BUILD_TYPE}\"; a release build is optimised."
            "Pass -DCMAKE_BUILD_TYPE=RelWithDebInfo (as the release preset does) or Release.")
    endif()
endif()
