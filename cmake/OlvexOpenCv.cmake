# SPDX-License-Identifier: Apache-2.0
# olvex_find_opencv(<module>...) makes the targets opencv_<module>. Debian packs OpenCV module by
# module, and only the package of them all has OpenCVConfig.cmake; without that the modules
# are looked up one by one. OLVEX_OPENCV_VERSION is the version that its headers say.
function(olvex_find_opencv)
  find_package(OpenCV QUIET COMPONENTS ${ARGN})
  foreach(module IN LISTS ARGN)
    if(TARGET opencv_${module})
      continue()
    endif()
    find_path(OLVEX_OPENCV_INCLUDE_DIR opencv2/${module}.hpp PATH_SUFFIXES opencv4 REQUIRED)
    find_library(OLVEX_OPENCV_${module}_LIBRARY opencv_${module} REQUIRED)
    add_library(opencv_${module} SHARED IMPORTED GLOBAL)
    set_target_properties(opencv_${module} PROPERTIES
      IMPORTED_LOCATION "${OLVEX_OPENCV_${module}_LIBRARY}"
      INTERFACE_INCLUDE_DIRECTORIES "${OLVEX_OPENCV_INCLUDE_DIR}")
  endforeach()
  list(GET ARGN 0 module)
  get_target_property(folders opencv_${module} INTERFACE_INCLUDE_DIRECTORIES)
  find_file(OLVEX_OPENCV_VERSION_HEADER opencv2/core/version.hpp PATHS ${folders} NO_DEFAULT_PATH REQUIRED)
  file(STRINGS "${OLVEX_OPENCV_VERSION_HEADER}" version REGEX "#define CV_VERSION_(MAJOR|MINOR|REVISION) +[0-9]+")
  string(REGEX REPLACE "[^0-9;]" "" version "${version}")
  string(REPLACE ";" "." version "${version}")
  set(OLVEX_OPENCV_VERSION "${version}" PARENT_SCOPE)
endfunction()
