// SPDX-License-Identifier: Apache-2.0
// container.h - the container of a recording, a strict profile of MCAP: uncompressed chunks with their CRCs and the
// definitions of recorder/recording_schemas.c. What is in the messages is the business of recording.h.
#ifndef TOOLS_RECORDINGS_CONTAINER_H
#define TOOLS_RECORDINGS_CONTAINER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/recordings/messages.h"

namespace olvex_tools {

// A message, and where its data lies in the file.
struct ContainedMessage {
  std::uint16_t channel = 0;
  std::uint32_t sequence = 0;
  std::uint64_t log_time = 0;      // nanoseconds since 1970
  std::uint64_t publish_time = 0;  // nanoseconds, monotonic
  std::size_t offset = 0;
  std::size_t size = 0;
};

struct ContainedChunk {
  std::size_t offset = 0;  // of its record
  std::size_t end = 0;     // behind its index, too
  std::vector<ContainedMessage> messages;
};

// Bytes that were not read, and why.
struct Damage {
  std::size_t offset = 0;
  std::size_t end = 0;  // where reading went on, or the file's size
  bool is_cut = false;  // the file ends within a record, or without an end
  std::string what;
};

struct Container {
  std::vector<ContainedChunk> chunks;
  std::vector<Damage> damages;  // at most one, without Recovery::kAll
  bool is_ended = false;        // Data End is there
};

enum class Recovery {
  kNone,  // what stands before the first damage
  kAll    // every chunk whose CRC is right
};

// Throws ToolError (kInputError), which names the file and the byte, for a file that is no recording. Damage of
// chunks, and behind them, is reported in the result.
Container read_container(const std::string& name, const unsigned char* bytes, std::size_t size,
                         Recovery recovery);

std::uint32_t crc32_of(const unsigned char* bytes, std::size_t size);

}  // namespace olvex_tools

#endif  // TOOLS_RECORDINGS_CONTAINER_H
