# Project-wide compile settings, applied through an interface target so that every
# library and executable gets the same warnings and sanitizer flags.
add_library(ossevra_options INTERFACE)
target_compile_options(ossevra_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow
    -Wnon-virtual-dtor -Wimplicit-fallthrough
    # GCC 12 reports std::variant and std::optional members as maybe-uninitialized
    # when it inlines their copies; the reports are false and would break -Werror.
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
if(OSV_WERROR)
    target_compile_options(ossevra_options INTERFACE -Werror)
endif()
if(OSV_SANITIZE)
    target_compile_options(ossevra_options INTERFACE -fsanitize=address,undefined
        -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(ossevra_options INTERFACE -fsanitize=address,undefined)
endif()
if(CMAKE_BUILD_TYPE STREQUAL "Debug")
    # Debug keeps assertions; -O1 keeps the property tests quick.
    target_compile_options(ossevra_options INTERFACE -O1)
endif()

# ossevra_library(NAME SOURCES... [DEPENDS libs...] [PRIVATE_DEPENDS libs...])
# One folder under src/ is one library, named ossevra_<folder>; headers are included
# as "<folder>/Header.h".
function(ossevra_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS;PRIVATE_DEPENDS" ${ARGN})
    add_library(ossevra_${name} STATIC ${ARG_SOURCES})
    target_include_directories(ossevra_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(ossevra_${name} PUBLIC ${ARG_DEPENDS} PRIVATE ossevra_options
        ${ARG_PRIVATE_DEPENDS})
endfunction()

# ossevra_test(NAME SOURCES... DEPENDS libs... [LABELS labels...])
function(ossevra_test name)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS;LABELS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES} ${PROJECT_SOURCE_DIR}/tests/TestEnvironment.cpp)
    target_link_libraries(${name} PRIVATE ${ARG_DEPENDS} ossevra_options GTest::gtest
        GTest::gmock GTest::gtest_main)
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
    # Tests find fixtures and examples relative to the source tree.
    target_compile_definitions(${name} PRIVATE OSV_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES LABELS "${ARG_LABELS}")
endfunction()
