// SPDX-License-Identifier: Apache-2.0
// record.h - what the subcommands of record do with recordings; record_command.cpp has their options.
#ifndef TOOLS_RECORD_RECORD_H
#define TOOLS_RECORD_RECORD_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/recordings/recording.h"
#include "tools/recordings/recording_writer.h"

namespace olvex_tools {

// All throw ToolError.

// A part of a recording, by the numbers of the calls that began in it.
struct RecordingPart {
  std::uint32_t first_call = 0;
  std::uint32_t last_call = 0;
  std::size_t frames = 0;
};

// The frames from one number to another.
RecordingPart part_by_frames(const Recording& recording, std::uint32_t from, std::uint32_t to);
// around: seconds after the first frame, or a time as in 2026-05-04T12:00:00Z.
RecordingPart part_by_time(const Recording& recording, const std::string& around, double before,
                           double after);
void write_part(const Recording& recording, const RecordingPart& part, const std::string& path);

void write_all_chunks(const Recording& recording, const std::string& path);
void write_anonymised(const Recording& recording, const std::string& path);

MessageToWrite message_to_write(const Recording& recording, const ContainedMessage& message);

// "2026-05-04T12:00:00.250Z" for nanoseconds since 1970.
std::string time_text(std::uint64_t nanoseconds);

}  // namespace olvex_tools

#endif  // TOOLS_RECORD_RECORD_H
