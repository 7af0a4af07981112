# The library's own targets.
#   qv_platform     headers of the chip's call contract
#   olvex_det_core  all library sources but the exported functions, as objects, for tests and tools
#   olvex_det       libolvex_det.so.1 (alias olvex::det), which exports the public functions alone
# An x_plain.cpp in the library's folders defines what the x.cpp beside it has to do; no library that ships
# has it, OlvexRoutines.cmake compiles it.

find_package(Threads REQUIRED)

add_library(qv_platform INTERFACE)
target_include_directories(qv_platform INTERFACE "${PROJECT_SOURCE_DIR}/platform/include")

add_library(olvex_det_core OBJECT
  base/ipu_engine/ipu_engine.cpp
  base/postprocess/activations.cpp
  base/postprocess/box_sort.cpp
  base/postprocess/cell_candidates.cpp
  base/postprocess/double_check.cpp
  base/postprocess/ipu_decode.cpp
  base/postprocess/ipu_layout.cpp
  base/postprocess/kept_boxes.cpp
  base/postprocess/raw_decode.cpp
  base/postprocess/raw_layer.cpp
  base/postprocess/score_order.cpp
  base/postprocess/stable_box.cpp
  base/postprocess/suppression.cpp
  base/sdet/class_mapping.cpp
  base/sdet/model_image.cpp
  base/sdet/model_loading.cpp
  base/sdet/output_type.cpp
  base/sdet/sdet_model.cpp
  base/tracker/iou_tracker/iout.cpp
  base/tracker/iou_tracker/open_detections.cpp
  utils/debug/debug.cpp
  utils/log/olvex_log.cpp
  video/det/src/det_refine.cpp
  video/det/src/det_schedule.cpp
  video/det/src/previous_boxes.cpp)
set_target_properties(olvex_det_core PROPERTIES
  CXX_STANDARD 11 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
  POSITION_INDEPENDENT_CODE ON)
target_include_directories(olvex_det_core PUBLIC
  "${PROJECT_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}/utils/records")
target_link_libraries(olvex_det_core PUBLIC qv_platform olvex_numbers Threads::Threads
                                     PRIVATE olvex_warnings olvex_hardening)

set(OLVEX_EXPORT_MAP "${PROJECT_SOURCE_DIR}/cmake/olvex_det.map")
add_library(olvex_det SHARED video/det/src/olvex_det_impl.cpp)
add_library(olvex::det ALIAS olvex_det)
set_target_properties(olvex_det PROPERTIES
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
  CXX_STANDARD 11 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF
  CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
  LINK_DEPENDS "${OLVEX_EXPORT_MAP}"
  INSTALL_RPATH "")  # needs the system's libraries alone
# As an option: CMake drops definitions with a '#' in them.
set(OLVEX_COMMIT_DET_OPTION "-DOLVEX_COMMIT_DET=\"${OLVEX_COMMIT_DET}\"")
set_source_files_properties(video/det/src/olvex_det_impl.cpp PROPERTIES
  COMPILE_OPTIONS "${OLVEX_COMMIT_DET_OPTION}")
target_include_directories(olvex_det
  PUBLIC "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/video/det/include>"
         "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/utils/records>"
         "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/platform/include>"
         "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/olvex>"
  PRIVATE "${PROJECT_SOURCE_DIR}")
target_link_libraries(olvex_det PRIVATE olvex_det_core olvex_warnings olvex_numbers
                                        olvex_hardening)
# The QV_ calls stay undefined: the application links the chip's library or one of platform/.
target_link_options(olvex_det PRIVATE "LINKER:--version-script=${OLVEX_EXPORT_MAP}"
                                      "LINKER:--as-needed")

install(TARGETS olvex_det LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(FILES
  video/det/include/olvex_det.h utils/records/algo_types.h
  platform/include/qv_types.h platform/include/qv_sys.h platform/include/qv_ipu.h
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/olvex")
