# Fuzzers of what the workstation's programs read.
find_package(ZLIB REQUIRED)

olvex_add_fuzzer(host_image_fuzz REGRESSIONS 2
  SOURCES host_image_fuzz.cpp
  LIBRARIES qv_host_image ZLIB::ZLIB)

olvex_add_fuzzer(evaluation_fuzz REGRESSIONS 0 SOURCES evaluation_fuzz.cpp LIBRARIES olvex_tools)
olvex_add_fuzzer(packer_fuzz REGRESSIONS 1 SOURCES packer_fuzz.cpp LIBRARIES olvex_tools)
olvex_add_fuzzer(recording_fuzz REGRESSIONS 1 SOURCES recording_fuzz.cpp LIBRARIES olvex_tools)
# What they call needs no accelerator; without it they start in a tenth of the time.
foreach(fuzzer IN ITEMS evaluation_fuzz packer_fuzz)
  target_link_options(${fuzzer} PRIVATE "LINKER:--as-needed")
endforeach()
