# Tests of the subcommand run: run_test.py drives the command line with networks of
# make_test_network.
find_package(Python3 REQUIRED COMPONENTS Interpreter)

add_test(NAME tools.run
         COMMAND Python3::Interpreter "${CMAKE_CURRENT_SOURCE_DIR}/run_test.py"
                 $<TARGET_FILE:olvex-det> $<TARGET_FILE:make_test_network>
                 "${PROJECT_SOURCE_DIR}/tools/schema")
set_tests_properties(tools.run PROPERTIES LABELS tools TIMEOUT 300)
