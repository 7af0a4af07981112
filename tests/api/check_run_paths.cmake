# SPDX-License-Identifier: Apache-2.0
# Checks that no binary of a build and of its installation loads libraries from the current folder: each
# entry of a run path (RPATH, RUNPATH) is absolute or begins with $ORIGIN, none is empty. Run by ctest with
#   -DBUILD= -DPREFIX= -DREADELF=
# PREFIX is a folder that is the check's own. The readelf of binutils reads every processor's files.

function(check_run_paths folder)
  file(GLOB_RECURSE files LIST_DIRECTORIES OFF "${folder}/bin/*" "${folder}/lib*/*")
  set(binaries 0)
  foreach(file IN LISTS files)
    file(READ "${file}" magic LIMIT 4 HEX)
    if(IS_SYMLINK "${file}" OR NOT magic STREQUAL "7f454c46")
      continue()
    endif()
    math(EXPR binaries "${binaries} + 1")
    execute_process(COMMAND "${READELF}" --dynamic --wide "${file}" OUTPUT_VARIABLE dynamic
                    COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX MATCHALL "Library r(un)?path: [^\n]*" paths "${dynamic}")
    set(entry "(\\$ORIGIN|/)[^:]*")
    foreach(path IN LISTS paths)
      if(NOT path MATCHES "\\[${entry}(:${entry})*\\]$")
        message(SEND_ERROR "${file} loads libraries from the current folder: ${path}")
      endif()
    endforeach()
  endforeach()
  if(binaries EQUAL 0)
    message(SEND_ERROR "${folder} holds no binary: build everything first")
  endif()
  message(STATUS "${folder}: ${binaries} binaries")
endfunction()

file(REMOVE_RECURSE "${PREFIX}")
execute_process(COMMAND "${CMAKE_COMMAND}" --install "${BUILD}" --prefix "${PREFIX}"
                OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
check_run_paths("${BUILD}")
check_run_paths("${PREFIX}")
file(REMOVE_RECURSE "${PREFIX}")
