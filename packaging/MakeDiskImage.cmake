# Run by CPack after the tarball is made: a read-only disk image (ISO 9660 with Rock Ridge, so
# modes and long names survive) holding the tarball's folder as "velmora-audio-helper".
set(tarball "")
foreach(file IN LISTS CPACK_PACKAGE_FILES)
    if(file MATCHES "\\.tar\\.gz$")
        set(tarball "${file}")
    endif()
endforeach()
if(NOT tarball)
    message(FATAL_ERROR "No tarball to make the disk image from")
endif()
if(NOT CPACK_VELMORA_XORRISO)
    message(FATAL_ERROR "xorriso (Debian: xorriso) is needed for the disk image")
endif()

get_filename_component(name "${tarball}" NAME)
string(REGEX REPLACE "\\.tar\\.gz$" ".iso" name "${name}")
set(image "${CPACK_PACKAGE_DIRECTORY}/${name}")
set(work "${CPACK_TOPLEVEL_DIRECTORY}/disk-image")
file(REMOVE_RECURSE "${work}")
file(MAKE_DIRECTORY "${work}/unpacked" "${work}/root")
execute_process(COMMAND ${CMAKE_COMMAND} -E tar xzf "${tarball}"
                WORKING_DIRECTORY "${work}/unpacked" RESULT_VARIABLE failed)
if(failed)
    message(FATAL_ERROR "Couldn't unpack ${tarball}")
endif()
file(GLOB folder LIST_DIRECTORIES true "${work}/unpacked/*")
file(RENAME "${folder}" "${work}/root/velmora-audio-helper")

file(REMOVE "${image}")
execute_process(
    COMMAND "${CPACK_VELMORA_XORRISO}" -as mkisofs -quiet -rational-rock -joliet
            -volid VELMORA_AUDIO_HELPER -output "${image}" "${work}/root"
    RESULT_VARIABLE failed ERROR_VARIABLE errors)
if(failed)
    message(FATAL_ERROR "xorriso couldn't make ${image}: ${errors}")
endif()
file(REMOVE_RECURSE "${work}")
message(STATUS "CPack: - disk image: ${image} generated.")
