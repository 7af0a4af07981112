// SPDX-License-Identifier: Apache-2.0
// frame_program.cpp - olvex_frames: runs whole frames with one library, for counting what they take
// from outside (bench/instructions, perf, valgrind).
#include <stdlib.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include "bench/whole_run.h"

namespace {

// The library as an application links it, so that a recorder can be preloaded.
const Routines* public_routines() {
  static Routines routines = {};
  routines.create_handle = ALGO_DET_CreateHandle;
  routines.init_handle = ALGO_DET_InitHandle;
  routines.set_tracker2 = ALGO_DET_SetTracker2;
  routines.set_strict_mode = ALGO_DET_SetStrictMode;
  routines.run = ALGO_DET_Run;
  routines.deinit_handle = ALGO_DET_DeinitHandle;
  return &routines;
}

// Null for an unknown name.
const Routines* find_routines(const std::string& name) {
  if (name == "public") {
    return public_routines();
  }
  for (const Library& library : libraries()) {
    if (name == library.name) {
      return library.with_log;
    }
    if (name == std::string(library.name) + "_without_log") {
      return library.without_log;
    }
  }
  return nullptr;
}

// Zero for what is no whole number.
int whole_number(const char* text) {
  int number = 0;
  const char* const end = text + std::strlen(text);
  const auto result = std::from_chars(text, end, number);
  return result.ec == std::errc() && result.ptr == end ? number : 0;
}

int run_frames(const char* name, int frames, int boxes) {
  const bool accelerator_alone = std::strcmp(name, "accelerator") == 0;
  const Routines* routines = find_routines(accelerator_alone ? "plain_without_log" : name);
  if (routines == nullptr) {
    std::fprintf(stderr, "olvex_frames: unknown library \"%s\", see --help\n", name);
    return 2;
  }
  WholeRun run(*routines, boxes, WholeRun::kNormal);
  long reported = run.frame();
  for (int i = 1; i < frames; ++i) {
    if (accelerator_alone) {
      run.accelerator_frame();
    } else {
      reported += run.frame();
    }
  }
  return std::fprintf(stderr, "%d frames, %ld boxes reported\n", frames, reported) < 0 ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || argc > 4) {
    std::fprintf(stderr,
                 "usage: olvex_frames LIBRARY FRAMES [BOXES]\n"
                 "Runs FRAMES frames with BOXES objects (default 20). LIBRARY: plain, shipped,\n"
                 "plain_without_log, shipped_without_log, public for the shared library as\n"
                 "applications link it, or accelerator for the scripted accelerator's part alone. "
                 "The log goes to /dev/null.\n");
    return argc == 2 && std::strcmp(argv[1], "--help") == 0 ? 0 : 2;
  }
  unsetenv("TZ");
  unsetenv("QK_ALGO_S");
  const int frames = whole_number(argv[2]);
  const int boxes = argc == 4 ? whole_number(argv[3]) : 20;
  if (frames < 1 || boxes < 1 || boxes > ALGO_DET_MAX_BOXES) {
    std::fprintf(stderr, "olvex_frames: FRAMES and BOXES (at most %d) must be positive numbers\n",
                 ALGO_DET_MAX_BOXES);
    return 2;
  }
  if (std::freopen("/dev/null", "w", stdout) == nullptr) {
    std::perror("olvex_frames: /dev/null");
    return 1;
  }
  try {
    return run_frames(argv[1], frames, boxes);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "olvex_frames: %s\n", error.what());
    return 1;
  }
}
