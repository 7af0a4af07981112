# SPDX-License-Identifier: Apache-2.0
# GoogleTest, built from the sources that Debian installs so that it carries the same flags
# (sanitizers, target processor) as what it tests, and olvex_add_test().

set(OLVEX_GOOGLETEST_SOURCE "/usr/src/googletest" CACHE PATH "GoogleTest's sources")
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
add_subdirectory("${OLVEX_GOOGLETEST_SOURCE}" "${PROJECT_BINARY_DIR}/googletest" EXCLUDE_FROM_ALL
                 SYSTEM)
include(GoogleTest)

# The messages of log_lines.txt, compiled in so that a test program finds them wherever it is run.
set(olvex_log_lines "${PROJECT_SOURCE_DIR}/tests/support/log_lines.txt")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${olvex_log_lines}")
file(READ "${olvex_log_lines}" OLVEX_LOG_LINES)
configure_file("${PROJECT_SOURCE_DIR}/tests/support/log_lines_text.h.in"
               "${PROJECT_BINARY_DIR}/generated/log_lines_text.h" @ONLY)

# olvex_add_test(NAME <target> LABEL <label> SOURCES <file>... [LIBRARIES <target>...])
# builds a GoogleTest program and registers each of its cases.
function(olvex_add_test)
  set(timeout 120)
  if(CMAKE_CROSSCOMPILING)  # under an emulator
    set(timeout 600)
  endif()
  cmake_parse_arguments(arg "" "NAME;LABEL" "SOURCES;LIBRARIES" ${ARGN})
  add_executable(${arg_NAME} ${arg_SOURCES})
  target_include_directories(${arg_NAME} PRIVATE "${PROJECT_SOURCE_DIR}"
                                                 "${PROJECT_BINARY_DIR}/generated")
  target_link_libraries(${arg_NAME} PRIVATE ${arg_LIBRARIES} GTest::gtest_main olvex_warnings
                                            olvex_numbers olvex_quick_build)
  gtest_discover_tests(${arg_NAME} DISCOVERY_MODE PRE_TEST
                       PROPERTIES LABELS "${arg_LABEL}" TIMEOUT ${timeout})
endfunction()
