# Warnings as errors on our own code only.
function(velmora_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()

# One piece of the core per source folder: every .cpp directly in the folder, compiled into the
# core library (velmora_core, made in src/) and nowhere else. Programs, the tray module, tests and
# benchmarks link velmora_core: one copy of the core per process, whoever loads it.
function(velmora_library name folder)
    file(GLOB sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/src/${folder}/*.cpp")
    if(NOT sources)
        # A folder whose code has not landed yet still yields a linkable library.
        set(sources ${PROJECT_SOURCE_DIR}/cmake/empty.cpp)
    endif()
    add_library(${name} OBJECT ${sources})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src ${PROJECT_BINARY_DIR}/generated)
    velmora_warnings(${name})
    set_property(GLOBAL APPEND PROPERTY VELMORA_CORE_PIECES ${name})
endfunction()

# The libraries to link for a list that may name pieces of the core: each piece stands for the
# core library itself.
function(velmora_core_links result)
    get_property(pieces GLOBAL PROPERTY VELMORA_CORE_PIECES)
    set(libraries "")
    foreach(library IN LISTS ARGN)
        if(library IN_LIST pieces)
            set(library velmora_core)
        endif()
        if(NOT library IN_LIST libraries)
            list(APPEND libraries ${library})
        endif()
    endforeach()
    set(${result} ${libraries} PARENT_SCOPE)
endfunction()

# One GoogleTest executable per test folder, registered with CTest.
function(velmora_test name folder)
    file(GLOB sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/tests/${folder}/*.cpp")
    if(NOT sources)
        return()
    endif()
    add_executable(${name} ${sources})
    # A test names the pieces it exercises; it links the core that holds them.
    velmora_core_links(libraries ${ARGN})
    target_link_libraries(${name} PRIVATE ${libraries} velmora_test_support GTest::gtest_main
                          GTest::gmock)
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
    velmora_warnings(${name})
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()

# A module loaded with dlopen (no "lib" prefix): it exports only what is marked for export, keeps
# the static libraries it carries to itself, and takes the core from the core library.
function(velmora_module target)
    set_target_properties(${target} PROPERTIES
        PREFIX "" CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
    target_link_options(${target} PRIVATE -Wl,--exclude-libs,ALL -Wl,--no-undefined)
    target_link_libraries(${target} PRIVATE velmora_core)
    velmora_warnings(${target})
endfunction()

# Configure-time guard, run once every target exists: a target other than the core that linked a
# piece of the core would carry a second copy of it (its own settings, log and kit).
function(velmora_check_core_links)
    get_property(pieces GLOBAL PROPERTY VELMORA_CORE_PIECES)
    set(folders ${PROJECT_SOURCE_DIR})
    while(folders)
        list(POP_FRONT folders folder)
        get_property(subfolders DIRECTORY ${folder} PROPERTY SUBDIRECTORIES)
        list(APPEND folders ${subfolders})
        get_property(targets DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
        foreach(target IN LISTS targets)
            get_target_property(standalone ${target} VELMORA_OWN_ACCESS_COPY)
            if(target STREQUAL "velmora_core" OR target IN_LIST pieces OR standalone)
                continue()
            endif()
            get_target_property(links ${target} LINK_LIBRARIES)
            get_target_property(interfaceLinks ${target} INTERFACE_LINK_LIBRARIES)
            foreach(link IN LISTS links interfaceLinks)
                if(link IN_LIST pieces)
                    message(FATAL_ERROR "${target} links ${link}, a piece of the core: link "
                                        "velmora_core instead, so the core exists once")
                endif()
            endforeach()
        endforeach()
    endwhile()
endfunction()
