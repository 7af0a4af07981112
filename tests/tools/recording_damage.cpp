// SPDX-License-Identifier: Apache-2.0
// recording_damage.cpp - cuts a recording at random places and flips random bits of it, and reads what is left.
//
//   recording_damage RECORDING COUNT
//
// replay_test.py runs it. What stands before the damage has to be read as it was, and each damage has to be named;
// what can be recovered has to be all but the chunk that was hit. The seed is always the same.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>

#include "tools/common/command.h"
#include "tools/common/whole_file.h"
#include "tools/recordings/recording.h"

namespace {

using namespace olvex_tools;

constexpr unsigned kSeed = 14;

// A frame's bytes, and where its chunk ends.
struct WholeFrame {
  Bytes bytes;
  std::size_t end;
};
using Frames = std::map<std::uint32_t, WholeFrame>;  // by number

Frames frames_of(const Recording& recording) {
  Frames frames;
  for (const ContainedChunk& chunk : recording.container.chunks) {
    for (const ContainedMessage& message : chunk.messages) {
      if (message.channel == RECORDING_FRAME) {
        const auto begin = recording.bytes.begin() + static_cast<std::ptrdiff_t>(message.offset);
        const Bytes bytes(begin, begin + static_cast<std::ptrdiff_t>(message.size));
        const auto frame = unpack_message<RecordedFrame>(bytes.data(), bytes.size());
        frames[frame.number] = {bytes, chunk.messages.back().offset + chunk.messages.back().size};
      }
    }
  }
  return frames;
}

[[noreturn]] void fail(const std::string& what, std::size_t place, const std::string& why) {
  std::fprintf(stderr, "%s at %zu: %s\n", what.c_str(), place, why.c_str());
  std::exit(1);
}

class Trial {
 public:
  explicit Trial(const Bytes& bytes)
      : bytes_(bytes),
        whole_(read_recording("whole", bytes, Recovery::kNone)),
        frames_(frames_of(whole_)) {
    if (frames_.empty() || !whole_.container.damages.empty()) {
      fail("recording", 0, "it is no whole one with frames");
    }
  }

  void cut(std::size_t size) const {
    check("cut", size, Bytes(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(size)),
          size);
  }

  void flip(std::size_t bit) const {
    Bytes flipped = bytes_;
    flipped[bit / 8] ^= static_cast<unsigned char>(1u << bit % 8);
    check("flip", bit, flipped, bit / 8);
    recover(bit, flipped);
  }

 private:
  // first: the first byte that differs.
  void check(const std::string& what, std::size_t place, const Bytes& damaged,
             std::size_t first) const {
    const bool has_start = first >= whole_.container.chunks.front().end;
    try {
      const Recording read = read_recording("damaged", damaged, Recovery::kNone);
      // The summary behind the chunks is for viewers, and need not have a CRC.
      const bool is_in_summary =
          damaged.size() == bytes_.size() && first >= whole_.container.chunks.back().end;
      if (read.container.damages.empty() && !is_in_summary) {
        fail(what, place, "it was not noticed");
      }
      const Frames found = frames_of(read);
      for (const auto& [number, frame] : frames_) {
        const bool is_there = found.count(number) != 0;
        if (frame.end <= first && !is_there) {
          fail(what, place, "frame " + std::to_string(number) + " was lost");
        }
        if (is_there && found.at(number).bytes != frame.bytes) {
          fail(what, place, "frame " + std::to_string(number) + " was changed");
        }
      }
    } catch (const ToolError& error) {
      if (has_start || error.exit_code() != kInputError) {
        fail(what, place, std::string("it was refused: ") + error.what());
      }
    }
  }

  void recover(std::size_t bit, const Bytes& damaged) const {
    try {
      const Frames found = frames_of(read_recording("damaged", damaged, Recovery::kAll));
      const auto is_lost = [&](const auto& frame) { return found.count(frame.first) == 0; };
      if (std::count_if(frames_.begin(), frames_.end(), is_lost) > 1) {
        fail("flip", bit, "frames of several chunks could not be recovered");
      }
    } catch (const ToolError& error) {
      if (bit / 8 >= whole_.container.chunks.front().end) {
        fail("flip", bit, std::string("nothing was recovered: ") + error.what());
      }
    }
  }

  const Bytes& bytes_;
  Recording whole_;
  Frames frames_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: recording_damage RECORDING COUNT\n", stderr);
    return 2;
  }
  const std::vector<char> file = read_whole_file("the recording", argv[1]);
  const Bytes bytes(file.begin(), file.end());
  const Trial trial(bytes);
  std::mt19937 random(kSeed);
  for (int k = std::atoi(argv[2]); k > 0; --k) {
    trial.cut(random() % bytes.size());
    trial.flip(random() % (8 * bytes.size()));
  }
  return 0;
}
