# The library's own fuzzers.

# Inputs are chosen by what they reach in the library that ships, not in what surrounds it.
if(OLVEX_BUILD_FUZZERS)
  foreach(helper IN ITEMS qv_scripted olvex_det_plain)
    target_compile_options(${helper} PRIVATE -fno-sanitize=fuzzer-no-link)
  endforeach()
endif()

olvex_add_fuzzer(containers_fuzz REGRESSIONS 1 SOURCES containers_fuzz.cpp)
olvex_add_fuzzer(text_readers_fuzz REGRESSIONS 0 SOURCES text_readers_fuzz.cpp
                 LIBRARIES olvex_det_core qv_scripted)

# The shipped library beside the plain one. Looks into the handle behind the pointer, whose type
# information stays inside each library, so that the check of dynamic types cannot link.
olvex_add_fuzzer(frame_fuzz REGRESSIONS 3 SOURCES frame_fuzz.cpp
                 LIBRARIES olvex_det_plain olvex_det_shipped)
if(OLVEX_SANITIZERS)
  target_compile_options(frame_fuzz PRIVATE -fno-sanitize=vptr)
endif()

# The exported functions, linked as objects so that every mapping they make can be counted.
olvex_add_fuzzer(api_fuzz REGRESSIONS 0
                 SOURCES api_fuzz.cpp "${PROJECT_SOURCE_DIR}/video/det/src/olvex_det_impl.cpp"
                 LIBRARIES olvex_det_core qv_scripted)
target_link_options(api_fuzz PRIVATE "LINKER:--wrap=mmap,--wrap=munmap")
