// SPDX-License-Identifier: Apache-2.0
// play_recording.cpp - plays a recording through the library as olvex-det replay does, where there is no command line:
// in cross builds.
//
//   play_recording RECORDING
#include <cstdio>
#include <exception>

#include "tools/recordings/recording.h"
#include "tools/replay/replay.h"

extern "C" {
#include "recorder/checksums.h"
}

// What the reader takes of zlib, which a cross compiler does not bring along.
extern "C" unsigned long crc32(unsigned long crc, const unsigned char* bytes, unsigned size) {
  return crc32_of(static_cast<std::uint32_t>(crc), bytes, size);
}

int main(int argc, char** argv) {
  crc32_start();
  try {
    const olvex_tools::Recording recording = olvex_tools::read_recording(argv[argc - 1]);
    const olvex_tools::PlayResult result = olvex_tools::play(recording, {});
    std::fprintf(stderr, "%zu frames and %zu calls of %s: ", result.frames, result.calls,
                 recording.about.machine.c_str());
    if (result.first) {
      std::fprintf(stderr, "frame %u, %s: recorded %s, played %s\n", result.first->frame,
                   result.first->field.c_str(), result.first->recorded.c_str(),
                   result.first->played.c_str());
      return 1;
    }
    std::fputs("no difference\n", stderr);
    return 0;
  } catch (const std::exception& fault) {
    std::fprintf(stderr, "play_recording: %s\n", fault.what());
    return 1;
  }
}
