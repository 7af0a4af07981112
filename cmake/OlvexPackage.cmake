# SPDX-License-Identifier: Apache-2.0
# Installation: the components library, platform-headers and docs (host, tools and recorder are installed by their
# own folders), the CMake package olvex_det, olvex_det.pc and what is linked. Everything installed can be moved as a whole.

set(olvex_headers "${CMAKE_INSTALL_INCLUDEDIR}/olvex")
set(olvex_platform_headers "${olvex_headers}/platform")

install(TARGETS olvex_det EXPORT olvex_det LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT library)
install(FILES video/det/include/olvex_det.h utils/records/algo_types.h platform/contract/olvex_layout.h
        DESTINATION "${olvex_headers}" COMPONENT library)
if(OLVEX_STATIC)
  install(FILES "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/libolvex_det.a" DESTINATION "${CMAKE_INSTALL_LIBDIR}"
          COMPONENT library)
endif()
# A folder that comes last, so that an SDK's headers are found in front of these.
install(FILES "${OLVEX_PLATFORM_FOLDER}/qv_types.h" "${OLVEX_PLATFORM_FOLDER}/qv_sys.h"
              "${OLVEX_PLATFORM_FOLDER}/qv_ipu.h"
        DESTINATION "${olvex_platform_headers}" COMPONENT platform-headers)
set(olvex_pc_includedir "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
set(olvex_searched_last "$<INSTALL_PREFIX>/${olvex_platform_headers}")
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(olvex_pc_includedir "${CMAKE_INSTALL_INCLUDEDIR}")
  set(olvex_searched_last "${olvex_platform_headers}")
endif()
target_compile_options(olvex_det INTERFACE
  "$<INSTALL_INTERFACE:-idirafter${olvex_searched_last}>")

include(CMakePackageConfigHelpers)
set(olvex_package "${CMAKE_INSTALL_LIBDIR}/cmake/olvex_det")
install(EXPORT olvex_det NAMESPACE olvex:: FILE olvex_det-library.cmake DESTINATION "${olvex_package}"
        COMPONENT library)
configure_package_config_file(cmake/olvex_det-config.cmake.in "${PROJECT_BINARY_DIR}/olvex_det-config.cmake"
  INSTALL_DESTINATION "${olvex_package}" PATH_VARS CMAKE_INSTALL_LIBDIR
  NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/olvex_det-config-version.cmake"
                                 COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/olvex_det-config.cmake" "${PROJECT_BINARY_DIR}/olvex_det-config-version.cmake"
        DESTINATION "${olvex_package}" COMPONENT library)

# The folders in the .pc file are relative to its own.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(olvex_pc_prefix "${CMAKE_INSTALL_PREFIX}")
  set(olvex_pc_libdir "${CMAKE_INSTALL_LIBDIR}")
else()
  file(RELATIVE_PATH olvex_pc_prefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  set(olvex_pc_prefix "\${pcfiledir}/${olvex_pc_prefix}")
  string(REGEX REPLACE "/$" "" olvex_pc_prefix "${olvex_pc_prefix}")
  set(olvex_pc_libdir "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
configure_file(cmake/olvex_det.pc.in olvex_det.pc @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/olvex_det.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
        COMPONENT library)

include(OlvexSbom)
olvex_install_sbom(library DYNAMIC ${OLVEX_CXX_RUNTIME} "${OLVEX_C_LIBRARY}")

install(DIRECTORY docs/ DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT docs)
install(FILES README.md CHANGELOG.md LICENSE SECURITY.md DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT docs)
