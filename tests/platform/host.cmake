# SPDX-License-Identifier: Apache-2.0
# Tests of the host accelerator and of its offline models, on small networks made by tiny_onnx.
# make_test_network writes the same networks into files, for the tests of the command line.
add_library(tiny_onnx STATIC "${PROJECT_SOURCE_DIR}/tests/support/tiny_onnx.cpp")
target_compile_features(tiny_onnx PUBLIC cxx_std_17)
target_include_directories(tiny_onnx PUBLIC "${PROJECT_SOURCE_DIR}")
target_link_libraries(tiny_onnx PRIVATE olvex_warnings)

add_executable(make_test_network "${PROJECT_SOURCE_DIR}/tests/support/make_test_network.cpp")
target_link_libraries(make_test_network PRIVATE tiny_onnx olvex_warnings)

olvex_add_test(NAME host_image_test LABEL platform SOURCES host_image_test.cpp
               LIBRARIES qv_host_image)
olvex_add_test(NAME host_accelerator_test LABEL platform
               SOURCES host_accelerator_test.cpp host_refusal_test.cpp
               LIBRARIES qv_host qv_host_image tiny_onnx)
foreach(test host_image_test host_accelerator_test)
  target_compile_definitions(${test} PRIVATE
    OLVEX_PLATFORM_DATA="${CMAKE_CURRENT_SOURCE_DIR}/data")
endforeach()

# The probe network for it is packed by olvex-det.
if(OLVEX_BUILD_TOOLS)
  olvex_add_accel_check(accel_check_host qv_host)
  list(APPEND accel_check_settings "ACCEL_CHECK_HOST=$<TARGET_FILE:accel_check_host>"
                                   "OLVEX_DET=$<TARGET_FILE:olvex-det>" "SYSTEM_PYTHON=${OLVEX_SYSTEM_PYTHON}")
endif()
