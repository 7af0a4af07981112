// SPDX-License-Identifier: Apache-2.0
// recording_writer.h - writes recordings that were made of others: repaired, cut, without what gives things away; and
// files for viewers in the same container. The recorder's own writer, in recorder/, is for cameras.
#ifndef TOOLS_RECORDINGS_RECORDING_WRITER_H
#define TOOLS_RECORDINGS_RECORDING_WRITER_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/common/output_file.h"
#include "tools/recordings/messages.h"

namespace olvex_tools {

struct MessageToWrite {
  std::uint16_t channel = 0;
  std::uint32_t sequence = 0;
  std::uint64_t log_time = 0;
  std::uint64_t publish_time = 0;
  Bytes data;
};

// A channel, and the definition of its messages; both have the same number.
struct ChannelToWrite {
  std::string topic;
  std::string schema;
  std::string definition;  // of the encoding ros1msg
};

// Every function throws ToolError (kInputError) when the file cannot be written.
class RecordingWriter {
 public:
  // The file takes its place in finish(); a new one has mode 0600.
  explicit RecordingWriter(const std::string& path);
  // A file of another program: no recording. Channel k is channels[k - 1].
  RecordingWriter(const std::string& path, const std::string& library,
                  std::vector<ChannelToWrite> channels);

  // Leaves out an empty one.
  void add_chunk(const std::vector<MessageToWrite>& messages);
  // The summary, by which viewers seek, and the end. Call it once.
  void finish();

 private:
  struct ChunkEntry {
    std::uint64_t first_time = 0;
    std::uint64_t last_time = 0;
    std::uint64_t offset = 0;
    std::uint64_t size = 0;              // of the chunk's record
    std::uint64_t bytes = 0;             // of its messages
    std::vector<std::uint64_t> indexes;  // their offsets, by channel; 0: none
    std::uint64_t index_size = 0;
  };

  void write(const Bytes& bytes);
  Bytes statistics() const;
  static Bytes chunk_index(const ChunkEntry& chunk);
  void append_definitions(Bytes* bytes) const;

  OutputFile file_;
  std::vector<ChannelToWrite> channels_;
  std::uint64_t written_ = 0;
  std::vector<ChunkEntry> chunks_;
  std::vector<std::uint64_t> counts_;  // of messages, by channel
};

}  // namespace olvex_tools

#endif  // TOOLS_RECORDINGS_RECORDING_WRITER_H
