# SPDX-License-Identifier: Apache-2.0
# Flags that every target of the project shares, as interface targets:
#   olvex_warnings               what our own sources are compiled with
#   olvex_numbers                what keeps floating-point results the same on every machine
#   olvex_hardening              what is shipped: a memory fault is to end the process and not be exploitable
#   olvex_quick_build            what is not shipped and need not be fast: tests and fuzzers
#   olvex_quick_sanitizer_build  the same for olvex-det, only under the sanitizers
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)

# An SDK's own choice, in its toolchain file or in CXXFLAGS, stands: a build type's would come behind it and win.
if(NOT CMAKE_BUILD_TYPE AND CMAKE_SOURCE_DIR STREQUAL PROJECT_SOURCE_DIR AND NOT CMAKE_CXX_FLAGS MATCHES "(^| )-O")
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()

add_library(olvex_warnings INTERFACE)
target_compile_options(olvex_warnings INTERFACE -Wall -Wextra -Wshadow -Wconversion
  $<$<BOOL:${OLVEX_WARNINGS_AS_ERRORS}>:-Werror>)

# A fused multiply-add rounds once where the code rounds twice, and a processor that has it would
# then report other boxes than one that has not. Excess precision has the same effect.
add_library(olvex_numbers INTERFACE)
target_compile_options(olvex_numbers INTERFACE -ffp-contract=off -fno-fast-math)

if(OLVEX_SANITIZERS)
  add_compile_options(-fsanitize=${OLVEX_SANITIZERS} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  # The sanitizer's library stands between dlopen and the program, whose RUNPATH does not count then. RPATH does.
  add_link_options(-fsanitize=${OLVEX_SANITIZERS} LINKER:--disable-new-dtags)
endif()

# docs/threats.md says what each flag is for and what it costs. The sanitizers see more than these do,
# and what they see must not be caught before.
add_library(olvex_hardening INTERFACE)
set(OLVEX_HARDENED OFF)
if(OLVEX_HARDENING AND NOT OLVEX_SANITIZERS AND NOT OLVEX_COVERAGE AND
   NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  set(OLVEX_HARDENED ON)
  # Level 3 checks more sizes than level 2, where compiler and C library both have it.
  set(CMAKE_REQUIRED_FLAGS "-O2 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
  check_cxx_source_compiles("#include <stdlib.h>
    #if !defined(__USE_FORTIFY_LEVEL) || __USE_FORTIFY_LEVEL < 3
    #error no level 3
    #endif
    int main() { return 0; }" OLVEX_HAS_FORTIFY_3)
  # Not every processor has this; a compiler that only warns of it has it not.
  set(CMAKE_REQUIRED_FLAGS -Werror)
  check_cxx_compiler_flag(-fstack-clash-protection OLVEX_HAS_STACK_CLASH_PROTECTION)
  unset(CMAKE_REQUIRED_FLAGS)
  target_compile_options(olvex_hardening INTERFACE
    -fstack-protector-strong -U_FORTIFY_SOURCE
    -D_FORTIFY_SOURCE=$<IF:$<BOOL:${OLVEX_HAS_FORTIFY_3}>,3,2>
    $<$<BOOL:${OLVEX_HAS_STACK_CLASH_PROTECTION}>:-fstack-clash-protection>)
  target_link_options(olvex_hardening INTERFACE
    "LINKER:-z,relro,-z,now,-z,noexecstack,-z,separate-code")
endif()

# The compiler takes four times as long for an optimised source with sanitizers as for a plain one, and a
# test program spends its time in the library.
add_library(olvex_quick_build INTERFACE)
add_library(olvex_quick_sanitizer_build INTERFACE)
if(OLVEX_SANITIZERS AND NOT OLVEX_BUILD_FUZZERS)
  target_compile_options(olvex_quick_build INTERFACE -O0)
  target_compile_options(olvex_quick_sanitizer_build INTERFACE -O0)
elseif(NOT OLVEX_BUILD_FUZZERS AND NOT OLVEX_COVERAGE AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  target_compile_options(olvex_quick_build INTERFACE -O1)
endif()

if(OLVEX_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()
