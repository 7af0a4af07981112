# SPDX-License-Identifier: Apache-2.0
# Checks what the finished library shows to the outside: exported names, libraries that it needs,
# its name, the build string in writable data, what hardens it, and on the camera its size. Run by ctest with
#   -DLIBRARY= -DNM= -DREADELF= -DSIZE= -DBUILD_STRING= -DSANITIZERS= -DHARDENED= -DTEXT_LIMIT=

function(run_tool result)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
  set(${result} "${output}" PARENT_SCOPE)
endfunction()

run_tool(symbols "${NM}" --dynamic --defined-only "${LIBRARY}")
string(REGEX MATCHALL " [A-Za-z] [^@\n]+" exported "${symbols}")
list(REMOVE_ITEM exported " A OLVEX_DET_1")  # the version node itself
list(SORT exported)
set(expected
  " T ALGO_DET_CreateHandle" " T ALGO_DET_DeinitHandle" " T ALGO_DET_GetInputAttr"
  " T ALGO_DET_InitHandle" " T ALGO_DET_InitHandle2" " T ALGO_DET_ReleaseHandle" " T ALGO_DET_Run"
  " T ALGO_DET_SetStableBox" " T ALGO_DET_SetStrictMode" " T ALGO_DET_SetThreshold"
  " T ALGO_DET_SetTracker" " T ALGO_DET_SetTracker2")
if(NOT exported STREQUAL expected)
  message(SEND_ERROR "exported: ${exported}\nexpected: ${expected}")
endif()

run_tool(dynamic "${READELF}" --dynamic --wide "${LIBRARY}")
if(NOT dynamic MATCHES "SONAME[^\n]*\\[libolvex_det\\.so\\.1\\]")
  message(SEND_ERROR "SONAME is not libolvex_det.so.1:\n${dynamic}")
endif()
set(allowed "libc|libm|libpthread|libstdc\\+\\+|libgcc_s|ld-linux[-a-z0-9_]*")
if(SANITIZERS)
  string(APPEND allowed "|libasan|libubsan|libtsan")
endif()
string(REGEX MATCHALL "NEEDED[^\n]*" needed "${dynamic}")
foreach(line IN LISTS needed)
  if(NOT line MATCHES "\\[(${allowed})\\.so\\.[0-9.]+\\]?")
    message(SEND_ERROR "needs a library that a camera may not have: ${line}")
  endif()
endforeach()

run_tool(data "${READELF}" --string-dump=.data "${LIBRARY}")
string(FIND "${data}" "${BUILD_STRING}" position)
if(position EQUAL -1)
  message(SEND_ERROR "build string ${BUILD_STRING} is not in .data:\n${data}")
endif()

if(HARDENED)
  run_tool(headers "${READELF}" --program-headers --wide "${LIBRARY}")
  run_tool(undefined "${NM}" --dynamic --undefined-only "${LIBRARY}")
  foreach(mark IN ITEMS "GNU_RELRO;${headers}" "GNU_STACK[^\n]* RW +0x;${headers}"
                        "FLAGS[^\n]*BIND_NOW;${dynamic}" "U __stack_chk_fail;${undefined}"
                        "U __printf_chk;${undefined}")
    list(POP_FRONT mark pattern)
    if(NOT mark MATCHES "${pattern}")
      message(SEND_ERROR "not hardened, no ${pattern} in:\n${mark}")
    endif()
  endforeach()
endif()

if(TEXT_LIMIT)
  run_tool(sizes "${SIZE}" "${LIBRARY}")
  if(NOT sizes MATCHES "\n *([0-9]+)" OR CMAKE_MATCH_1 GREATER TEXT_LIMIT)
    message(SEND_ERROR "more than ${TEXT_LIMIT} bytes of text, bench/footprint says more:\n${sizes}")
  endif()
endif()
