# Fuzzers of what the workstation's programs read. They compile just the sources that they need, none
# of which needs OpenCV.
find_package(CLI11 REQUIRED)
find_package(nlohmann_json 3.9 REQUIRED)
find_package(ZLIB REQUIRED)

olvex_add_fuzzer(host_image_fuzz
  SOURCES host_image_fuzz.cpp
  LIBRARIES qv_host_image ZLIB::ZLIB)

set(tools "${PROJECT_SOURCE_DIR}/tools")
file(GLOB measures CONFIGURE_DEPENDS "${tools}/eval/coco_*.cpp" "${tools}/eval/mot_*.cpp")
list(FILTER measures EXCLUDE REGEX worst_pictures)
olvex_add_fuzzer(evaluation_fuzz
  SOURCES
    evaluation_fuzz.cpp
    ${measures}
    ${tools}/compare_choice.cpp
    ${tools}/compare_run.cpp
    ${tools}/eval/metric_minimums.cpp
    ${tools}/interruption.cpp
    ${tools}/standard_output.cpp
    ${tools}/suggestion.cpp
    ${tools}/whole_file.cpp
  LIBRARIES CLI11::CLI11 nlohmann_json::nlohmann_json)

# The library's objects need an accelerator to link, which is never called.
olvex_add_fuzzer(packer_fuzz
  SOURCES
    packer_fuzz.cpp
    ${tools}/model_pairs.cpp
    ${tools}/onnx_signature.cpp
    ${tools}/pack_options.cpp
    ${tools}/suggestion.cpp
    ${tools}/whole_file.cpp
  LIBRARIES olvex_det_core qv_host_image qv_scripted CLI11::CLI11)
