# SPDX-License-Identifier: Apache-2.0
# Installation: the components library, platform-headers and docs (host, tools and recorder are installed by their
# own folders), the CMake package olvex_det, olvex_det.pc and what is linked. Everything installed can be moved as a whole.

# ---- What is linked ----

# olvex_install_sbom() writes what the binaries of an installation's component are linked with, as an SPDX 2.3
# document, and installs it with them. CMake has no writer of JSON before 3.19: the text is put together here.

# The C library's and the C++ runtime's names and versions, as their headers say: "glibc 2.36", "libstdc++ 12".
function(olvex_runtime_version result language ending include definition)
  set(source "${PROJECT_BINARY_DIR}/runtime_version.${ending}")
  file(WRITE "${source}" "#include <${include}>\nruntime_version ${definition}\n")
  separate_arguments(flags UNIX_COMMAND "${CMAKE_${language}_FLAGS}")
  execute_process(COMMAND "${CMAKE_${language}_COMPILER}" ${flags} -E -P "${source}"
                  OUTPUT_VARIABLE preprocessed ERROR_QUIET)
  string(REGEX MATCH "runtime_version ([0-9. ]+)" found "${preprocessed}")
  string(REPLACE " " "" found "${CMAKE_MATCH_1}")
  set(${result} "${found}" PARENT_SCOPE)
endfunction()

olvex_runtime_version(olvex_glibc C c features.h "__GLIBC__.__GLIBC_MINOR__")
olvex_runtime_version(olvex_libstdcxx CXX cpp cstddef _GLIBCXX_RELEASE)
set(OLVEX_C_LIBRARY "C library")
if(olvex_glibc)
  set(OLVEX_C_LIBRARY "glibc ${olvex_glibc}")
endif()
set(OLVEX_CXX_RUNTIME "C++ runtime library" "libgcc")
if(olvex_libstdcxx)
  set(OLVEX_CXX_RUNTIME "libstdc++ ${olvex_libstdcxx}" "libgcc ${olvex_libstdcxx}")
endif()

# olvex_install_sbom(<component> DYNAMIC <name [version]>... [STATIC <name [version]>...])
# DYNAMIC: what the loader needs; STATIC: whose code is in the binaries, headers with code too.
function(olvex_install_sbom component)
  cmake_parse_arguments(arg "" "" "DYNAMIC;STATIC" ${ARGN})
  # The time of SOURCE_DATE_EPOCH, where that is set, so that the same sources give the same document.
  string(TIMESTAMP created "%Y-%m-%dT%H:%M:%SZ" UTC)
  set(packages "")
  set(relationships "")
  foreach(link IN ITEMS DYNAMIC STATIC)
    foreach(linked IN LISTS arg_${link})
      string(REGEX MATCH "^(.*[^ ]) ([0-9][0-9a-z.]*)$" has_version "${linked}")
      set(name "${linked}")
      set(version "")
      if(has_version)
        set(name "${CMAKE_MATCH_1}")
        set(version "\n      \"versionInfo\": \"${CMAKE_MATCH_2}\",")
      endif()
      string(REGEX REPLACE "[^A-Za-z0-9.]+" "-" id "SPDXRef-${name}")
      string(APPEND packages ",
    {
      \"SPDXID\": \"${id}\",
      \"name\": \"${name}\",${version}
      \"downloadLocation\": \"NOASSERTION\",
      \"filesAnalyzed\": false
    }")
      string(APPEND relationships ",
    { \"spdxElementId\": \"SPDXRef-olvex\", \"relationshipType\": \"${link}_LINK\", \"relatedSpdxElement\": \"${id}\" }")
    endforeach()
  endforeach()
  set(document "${PROJECT_BINARY_DIR}/olvex_det-${component}.spdx.json")
  set(name "olvex_det-${component}")
  file(WRITE "${document}" "{
  \"spdxVersion\": \"SPDX-2.3\",
  \"dataLicense\": \"CC0-1.0\",
  \"SPDXID\": \"SPDXRef-DOCUMENT\",
  \"name\": \"${name}\",
  \"documentNamespace\": \"https://spdx.org/spdxdocs/${name}-${PROJECT_VERSION}-${CMAKE_SYSTEM_PROCESSOR}-${created}\",
  \"creationInfo\": { \"created\": \"${created}\", \"creators\": [\"Tool: CMake-${CMAKE_VERSION}\"] },
  \"packages\": [
    {
      \"SPDXID\": \"SPDXRef-olvex\",
      \"name\": \"${name}\",
      \"versionInfo\": \"${PROJECT_VERSION}\",
      \"downloadLocation\": \"NOASSERTION\",
      \"filesAnalyzed\": false,
      \"licenseDeclared\": \"Apache-2.0\"
    }${packages}
  ],
  \"relationships\": [
    { \"spdxElementId\": \"SPDXRef-DOCUMENT\", \"relationshipType\": \"DESCRIBES\", \"relatedSpdxElement\": \"SPDXRef-olvex\" }${relationships}
  ]
}
")
  install(FILES "${document}" DESTINATION "${CMAKE_INSTALL_LIBDIR}/olvex_det-${PROJECT_VERSION_MAJOR}"
          COMPONENT ${component})
endfunction()

# ---- What is installed ----

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

olvex_install_sbom(library DYNAMIC ${OLVEX_CXX_RUNTIME} "${OLVEX_C_LIBRARY}")

install(DIRECTORY docs/ DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT docs)
install(FILES README.md CHANGELOG.md LICENSE SECURITY.md DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT docs)
