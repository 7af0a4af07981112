# SPDX-License-Identifier: Apache-2.0
# olvex_add_routines(<target> <table> [PLAIN] [<folder>...]) builds a whole library as a shared object
# that exports one function, <table>, from tests/support/routines.h. With PLAIN, each x_plain.cpp of the
# library's folders replaces the x.cpp beside it. A file that a folder has under the path of a file of the
# library replaces that one, too: a source is compiled instead, a header is found first. A file that
# replaces nothing is an error: after a file of the library has moved, its replacement would be left out
# without a message, and the library be compared with itself.

set(OLVEX_ROUTINES_SOURCES video/det/src/olvex_det_impl.cpp tests/support/routines.cpp)

function(olvex_add_routines target table)
  get_target_property(sources olvex_det_core SOURCES)
  list(APPEND sources ${OLVEX_ROUTINES_SOURCES})
  cmake_parse_arguments(PARSE_ARGV 2 routines "PLAIN" "" "")
  set(folders ${routines_UNPARSED_ARGUMENTS})
  set(plain "")
  if(routines_PLAIN)
    file(GLOB_RECURSE plain RELATIVE "${PROJECT_SOURCE_DIR}" CONFIGURE_DEPENDS
         "${PROJECT_SOURCE_DIR}/base/*_plain.cpp" "${PROJECT_SOURCE_DIR}/utils/*_plain.cpp"
         "${PROJECT_SOURCE_DIR}/video/*_plain.cpp")
  endif()
  foreach(source IN LISTS plain)
    string(REPLACE "_plain.cpp" ".cpp" fast "${source}")
    if(NOT fast IN_LIST sources)
      message(FATAL_ERROR "${source} replaces no file of the library")
    endif()
  endforeach()
  foreach(folder IN LISTS folders)
    file(GLOB_RECURSE replacements RELATIVE "${folder}" CONFIGURE_DEPENDS "${folder}/*.cpp"
         "${folder}/*.h")
    foreach(replacement IN LISTS replacements)
      if(NOT replacement IN_LIST sources AND
         NOT (replacement MATCHES "\\.h$" AND EXISTS "${PROJECT_SOURCE_DIR}/${replacement}"))
        message(FATAL_ERROR "${folder}/${replacement} replaces no file of the library")
      endif()
    endforeach()
  endforeach()
  set(chosen "")
  foreach(source IN LISTS sources)
    string(REPLACE ".cpp" "_plain.cpp" plain_source "${source}")
    if(plain_source IN_LIST plain)
      set(file "${PROJECT_SOURCE_DIR}/${plain_source}")
    else()
      set(file "${PROJECT_SOURCE_DIR}/${source}")
    endif()
    foreach(folder IN LISTS folders)
      if(EXISTS "${folder}/${source}")
        set(file "${folder}/${source}")
        break()
      endif()
    endforeach()
    list(APPEND chosen "${file}")
  endforeach()
  add_library(${target} SHARED ${chosen})
  set_target_properties(${target} PROPERTIES
    CXX_STANDARD 11 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  # The library's own public functions are visible by their declaration; they must not be bound to
  # those of another library in the same program.
  set(map "${CMAKE_CURRENT_BINARY_DIR}/${target}.map")
  file(CONFIGURE OUTPUT "${map}" CONTENT "{ global: ${table}; local: *; };\n")
  target_link_options(${target} PRIVATE "LINKER:--version-script=${map}")
  target_compile_definitions(${target} PRIVATE OLVEX_ROUTINES=${table})
  target_include_directories(${target} BEFORE PRIVATE
    ${folders} "${PROJECT_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}/utils/records"
    "${PROJECT_SOURCE_DIR}/video/det/include")
  # For the records in the table: the ones of the library as it ships.
  target_include_directories(${target} INTERFACE
    "${PROJECT_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}/utils/records")
  target_link_libraries(${target} PUBLIC qv_scripted PRIVATE olvex_warnings olvex_numbers
                                                               olvex_hardening Threads::Threads)
endfunction()
