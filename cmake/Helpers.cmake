# Warnings as errors on our own code only.
function(velmora_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()

# One static library per source folder: every .cpp directly in the folder.
function(velmora_library name folder)
    file(GLOB sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/src/${folder}/*.cpp")
    if(NOT sources)
        # A folder whose code has not landed yet still yields a linkable library.
        set(sources ${PROJECT_SOURCE_DIR}/cmake/empty.cpp)
    endif()
    add_library(${name} STATIC ${sources})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src ${PROJECT_BINARY_DIR}/generated)
    velmora_warnings(${name})
endfunction()

# One GoogleTest executable per test folder, registered with CTest.
function(velmora_test name folder)
    file(GLOB sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/tests/${folder}/*.cpp")
    if(NOT sources)
        return()
    endif()
    add_executable(${name} ${sources})
    target_link_libraries(${name} PRIVATE ${ARGN} velmora_test_support GTest::gtest_main GTest::gmock)
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
    velmora_warnings(${name})
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()
