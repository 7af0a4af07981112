# SPDX-License-Identifier: Apache-2.0
# The library's own targets.
#   qv_platform     headers of the chip's call contract, ours or an SDK's, and what the library relies on in them
#   olvex_det_core  all library sources but the exported functions, as objects, for tests and tools
#   olvex_det       libolvex_det.so.1 (alias olvex::det), which exports the public functions alone
#   olvex_det_static  libolvex_det.a with OLVEX_STATIC (alias olvex::det_static), whose only global symbols they are
# An x_plain.cpp in the library's folders defines what the x.cpp beside it has to do; no library that ships
# has it, OlvexRoutines.cmake compiles it.

find_package(Threads REQUIRED)

set(OLVEX_PLATFORM_INCLUDE "${PROJECT_SOURCE_DIR}/platform/include" CACHE PATH
    "Folder of qv_types.h, qv_sys.h and qv_ipu.h: the chip maker's SDK, or this project's own")
get_filename_component(OLVEX_PLATFORM_FOLDER "${OLVEX_PLATFORM_INCLUDE}" ABSOLUTE)
foreach(header IN ITEMS qv_types.h qv_sys.h qv_ipu.h)
  if(NOT EXISTS "${OLVEX_PLATFORM_FOLDER}/${header}")
    message(FATAL_ERROR "OLVEX_PLATFORM_INCLUDE: ${OLVEX_PLATFORM_FOLDER} has no ${header}. It must name the folder "
                        "with the chip's headers; docs/platform.md says what they have to declare.")
  endif()
endforeach()

# In front of every other folder, and not as a system's one, which would come last.
add_library(qv_platform INTERFACE)
target_include_directories(qv_platform BEFORE INTERFACE
  "${OLVEX_PLATFORM_FOLDER}" "${PROJECT_SOURCE_DIR}/platform/contract" "${PROJECT_SOURCE_DIR}")

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
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR} EXPORT_NAME det
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
         "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/platform/contract>"
         "$<BUILD_INTERFACE:${OLVEX_PLATFORM_FOLDER}>"
         "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/olvex>"
  PRIVATE "${PROJECT_SOURCE_DIR}")
target_link_libraries(olvex_det PRIVATE olvex_det_core olvex_warnings olvex_numbers
                                        olvex_hardening)
# The QV_ calls stay undefined: the application links the chip's library or one of platform/.
target_link_options(olvex_det PRIVATE "LINKER:--version-script=${OLVEX_EXPORT_MAP}"
                                      "LINKER:--as-needed")

# All objects become one, whose symbols are made local but for the exported ones: an application's own functions
# and templates cannot meet the library's.
if(OLVEX_STATIC)
  add_library(olvex_det_public OBJECT video/det/src/olvex_det_impl.cpp)
  set_target_properties(olvex_det_public PROPERTIES
    CXX_STANDARD 11 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF POSITION_INDEPENDENT_CODE ON)
  target_include_directories(olvex_det_public PRIVATE "${PROJECT_SOURCE_DIR}/video/det/include")
  target_link_libraries(olvex_det_public PRIVATE olvex_det_core olvex_warnings olvex_hardening)
  file(STRINGS "${OLVEX_EXPORT_MAP}" exported REGEX "ALGO_DET_")
  string(REGEX MATCHALL "ALGO_DET_[A-Za-z0-9]+" exported "${exported}")
  string(REPLACE ";" "\n" exported "${exported}")
  set(symbols "${PROJECT_BINARY_DIR}/olvex_det.symbols")
  file(WRITE "${symbols}" "${exported}\n")
  separate_arguments(flags UNIX_COMMAND "${CMAKE_CXX_FLAGS}")
  if(CMAKE_CXX_COMPILER_TARGET)
    list(APPEND flags "${CMAKE_CXX_COMPILE_OPTIONS_TARGET}${CMAKE_CXX_COMPILER_TARGET}")
  endif()
  set(archive "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/libolvex_det.a")
  set(object "${PROJECT_BINARY_DIR}/olvex_det.o")
  add_custom_command(OUTPUT "${archive}"
    COMMAND "${CMAKE_CXX_COMPILER}" ${flags} -r -nostdlib "-Wl,--force-group-allocation" -o "${object}"
            "$<TARGET_OBJECTS:olvex_det_core>" "$<TARGET_OBJECTS:olvex_det_public>"
    COMMAND "${CMAKE_OBJCOPY}" "--keep-global-symbols=${symbols}" "${object}"
    COMMAND "${CMAKE_COMMAND}" -E rm -f "${archive}"
    COMMAND "${CMAKE_AR}" rcsD "${archive}" "${object}"
    DEPENDS olvex_det_core olvex_det_public "$<TARGET_OBJECTS:olvex_det_core>" "$<TARGET_OBJECTS:olvex_det_public>"
            "${OLVEX_EXPORT_MAP}"
    COMMENT "Linking libolvex_det.a" COMMAND_EXPAND_LISTS VERBATIM)
  add_custom_target(olvex_det_archive ALL DEPENDS "${archive}")
  add_library(olvex_det_static INTERFACE)
  add_library(olvex::det_static ALIAS olvex_det_static)
  add_dependencies(olvex_det_static olvex_det_archive)
  target_include_directories(olvex_det_static INTERFACE $<TARGET_PROPERTY:olvex_det,INTERFACE_INCLUDE_DIRECTORIES>)
  target_link_libraries(olvex_det_static INTERFACE "${archive}" stdc++ m Threads::Threads)
endif()
