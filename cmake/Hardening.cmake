# Release builds are hardened as Debian builds its packages: the flags dpkg-buildflags gives
# with hardening=+all (its optimisation and debug flags aside: the build type decides those),
# then whatever of the current set an older dpkg does not give yet, where the compiler has it.
# Applies to every target from here down, the executable and the tray module included.
include(CheckCXXCompilerFlag)
include(CheckLinkerFlag)
include(CheckPIESupported)

set(velmoraHardeningCompileFlags "")
set(velmoraHardeningLinkFlags "")

find_program(VELMORA_DPKG_BUILDFLAGS dpkg-buildflags)
mark_as_advanced(VELMORA_DPKG_BUILDFLAGS)
if(VELMORA_DPKG_BUILDFLAGS)
    # Run from the source folder, its -ffile-prefix-map takes the build machine's path out of the
    # objects.
    foreach(kind CPPFLAGS CXXFLAGS LDFLAGS)
        execute_process(
            COMMAND ${CMAKE_COMMAND} -E env DEB_BUILD_MAINT_OPTIONS=hardening=+all
                    ${VELMORA_DPKG_BUILDFLAGS} --get ${kind}
            WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
            OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE failed)
        if(failed)
            message(FATAL_ERROR "dpkg-buildflags --get ${kind} failed")
        endif()
        separate_arguments(flags UNIX_COMMAND "${flags}")
        list(FILTER flags EXCLUDE REGEX "^-(O.*|g.*)$")
        if(kind STREQUAL "LDFLAGS")
            list(APPEND velmoraHardeningLinkFlags ${flags})
        else()
            list(APPEND velmoraHardeningCompileFlags ${flags})
        endif()
    endforeach()
endif()

# The current hardening set, for what dpkg did not give (an older dpkg, or no dpkg at all).
if(NOT velmoraHardeningCompileFlags MATCHES "-D_FORTIFY_SOURCE=")
    list(APPEND velmoraHardeningCompileFlags -D_FORTIFY_SOURCE=2)
endif()
if(NOT velmoraHardeningCompileFlags MATCHES "-ffile-prefix-map=")
    list(APPEND velmoraHardeningCompileFlags -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)
endif()
# A build folder outside the source tree is mapped too (inside it, the source map covers it).
list(APPEND velmoraHardeningCompileFlags -ffile-prefix-map=${PROJECT_BINARY_DIR}=build)
foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection)
    if(NOT flag IN_LIST velmoraHardeningCompileFlags)
        string(MAKE_C_IDENTIFIER "VELMORA_HAS${flag}" result)
        check_cxx_compiler_flag(${flag} ${result})
        if(${result})
            list(APPEND velmoraHardeningCompileFlags ${flag})
        endif()
    endif()
endforeach()
foreach(flag -Wl,-z,relro -Wl,-z,now)
    if(NOT flag IN_LIST velmoraHardeningLinkFlags)
        string(MAKE_C_IDENTIFIER "VELMORA_HAS${flag}" result)
        check_linker_flag(CXX ${flag} ${result})
        if(${result})
            list(APPEND velmoraHardeningLinkFlags ${flag})
        endif()
    endif()
endforeach()

add_compile_options(${velmoraHardeningCompileFlags})
add_link_options(${velmoraHardeningLinkFlags})
# Executables are linked as position-independent executables (-pie), not only compiled for it.
check_pie_supported(LANGUAGES CXX)
list(JOIN velmoraHardeningCompileFlags " " compileText)
list(JOIN velmoraHardeningLinkFlags " " linkText)
message(STATUS "Hardened release build: ${compileText}; linked with ${linkText} -pie")
