# Flags that every target of the project shares, as two interface targets:
#   olvex_warnings  what our own sources are compiled with
#   olvex_numbers   what keeps floating-point results the same on every machine

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
  add_link_options(-fsanitize=${OLVEX_SANITIZERS})
endif()

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()
