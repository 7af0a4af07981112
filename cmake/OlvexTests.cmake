# GoogleTest, built from the sources that Debian installs so that it carries the same flags
# (sanitizers, target processor) as what it tests, and olvex_add_test().

set(OLVEX_GOOGLETEST_SOURCE "/usr/src/googletest" CACHE PATH "GoogleTest's sources")
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
add_subdirectory("${OLVEX_GOOGLETEST_SOURCE}" "${PROJECT_BINARY_DIR}/googletest" EXCLUDE_FROM_ALL
                 SYSTEM)
include(GoogleTest)

# olvex_add_test(NAME <target> LABEL <label> SOURCES <file>... [LIBRARIES <target>...])
# builds a GoogleTest program and registers each of its cases.
function(olvex_add_test)
  cmake_parse_arguments(arg "" "NAME;LABEL" "SOURCES;LIBRARIES" ${ARGN})
  add_executable(${arg_NAME} ${arg_SOURCES})
  target_include_directories(${arg_NAME} PRIVATE "${PROJECT_SOURCE_DIR}")
  target_link_libraries(${arg_NAME} PRIVATE ${arg_LIBRARIES} GTest::gtest_main olvex_warnings
                                            olvex_numbers)
  gtest_discover_tests(${arg_NAME} DISCOVERY_MODE PRE_TEST
                       PROPERTIES LABELS "${arg_LABEL}" TIMEOUT 120)
endfunction()
