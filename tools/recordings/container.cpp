// SPDX-License-Identifier: Apache-2.0
// container.cpp - records one after the other, each in the place that the profile has for it.
#include "tools/recordings/container.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <set>
#include <utility>

#include <zlib.h>

#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/recordings/file_cursor.h"

namespace olvex_tools {

namespace {

constexpr char kLibrary[] = "olvex_recorder ";
// Chunks within chunks that all look whole up to their last byte: looking at each of them in full would take
// the square of the file's size. Other files do not come near this multiple of their size.
constexpr std::size_t kMostLooks = 16;

struct Record {
  unsigned char number = 0;
  std::size_t offset = 0;
  std::size_t begin = 0;  // of its contents
  std::size_t end = 0;
};

class Reader {
 public:
  Reader(const std::string& name, const unsigned char* bytes, std::size_t size)
      : name_(name), bytes_(bytes), size_(size) {}

  Container read(Recovery recovery) {
    expect_magic();
    std::size_t next = RECORDING_MAGIC_SIZE;
    try {
      next = read_head();
    } catch (const FileFault& fault) {
      if (recovery == Recovery::kNone) {
        refuse_input(name_, "byte " + std::to_string(fault.offset) + ": " + fault.what);
      }
      next = recover(fault, next);
    }
    while (next < size_) {
      try {
        read_data(&next);
        break;
      } catch (const FileFault& fault) {
        if (recovery == Recovery::kNone) {
          container_.damages.push_back({fault.offset, size_, fault.is_cut, fault.what});
          break;
        }
        next = recover(fault, next);
      }
    }
    if (!container_.is_ended && container_.damages.empty()) {
      container_.damages.push_back({size_, size_, true, "the recording has no end"});
    }
    return std::move(container_);
  }

 private:
  void expect_magic() const {
    if (size_ < RECORDING_MAGIC_SIZE ||
        std::memcmp(bytes_, RECORDING_MAGIC, RECORDING_MAGIC_SIZE) != 0) {
      refuse_input(name_, "byte 0: not a recording: it does not begin as an MCAP file does");
    }
  }

  Record record_at(std::size_t offset) const {
    Record record;
    record.offset = offset;
    if (size_ - offset < RECORDING_RECORD_HEADER) {
      throw FileFault{offset, "the file ends within a record", true};
    }
    FileCursor cursor(bytes_, offset, size_);
    record.number = cursor.value<std::uint8_t>();
    const std::uint64_t size = cursor.value<std::uint64_t>();
    if (size > cursor.left()) {
      throw FileFault{offset, "the file ends within a record of " + std::to_string(size) + " bytes",
                      true};
    }
    record.begin = cursor.offset();
    record.end = record.begin + static_cast<std::size_t>(size);
    return record;
  }

  // ---- Header, schemas, channels ----

  void read_header(const Record& record) const {
    FileCursor cursor(bytes_, record.begin, record.end);
    const std::string profile = cursor.text();
    const std::size_t at = cursor.offset();
    const std::string library = cursor.text();
    const std::string wanted = kLibrary + std::to_string(RECORDING_FORMAT);
    if (!profile.empty() || library.compare(0, sizeof kLibrary - 1, kLibrary) != 0) {
      throw FileFault{at, "an MCAP file, but not one of the recorder: made by \"" +
                              one_line(shortened(library, 60, "...")) + "\""};
    }
    if (library != wanted) {
      throw FileFault{at, "made by \"" + one_line(shortened(library, 60, "...")) +
                              "\", and this program reads \"" + wanted + "\" only"};
    }
    cursor.expect_end();
  }

  static void expect_text(FileCursor* cursor, const char* wanted, const std::string& what) {
    const std::size_t at = cursor->offset();
    if (cursor->text() != wanted) {
      throw FileFault{at,
                      what + " is not the recorder's: the file is damaged or of another version"};
    }
  }

  static const recording_schema& schema_of(std::uint16_t number, std::size_t offset) {
    if (number == 0 || number > RECORDING_CHANNELS) {
      throw FileFault{offset,
                      "number " + std::to_string(number) + " is none of the recorder's channels"};
    }
    return recording_schemas[number - 1];
  }

  void read_schema(const Record& record) const {
    FileCursor cursor(bytes_, record.begin, record.end);
    const std::uint16_t number = cursor.value<std::uint16_t>();
    const recording_schema& schema = schema_of(number, record.begin);
    expect_text(&cursor, schema.name, "the name of a schema");
    expect_text(&cursor, "ros1msg", "the encoding of a schema");
    expect_text(&cursor, schema.text, std::string("the definition of ") + schema.name);
    cursor.expect_end();
  }

  void read_channel(const Record& record) const {
    FileCursor cursor(bytes_, record.begin, record.end);
    const std::uint16_t number = cursor.value<std::uint16_t>();
    const recording_schema& schema = schema_of(number, record.begin);
    if (cursor.value<std::uint16_t>() != number) {
      throw FileFault{record.begin + 2, "the channel is of another schema"};
    }
    expect_text(&cursor, schema.topic, "the topic of a channel");
    expect_text(&cursor, "ros1", "the encoding of a channel");
    if (cursor.value<std::uint32_t>() != 0) {
      throw FileFault{cursor.offset() - 4, "the channel has metadata"};
    }
    cursor.expect_end();
  }

  // Returns where the data begins.
  std::size_t read_head() const {
    Record record = record_at(RECORDING_MAGIC_SIZE);
    if (record.number != RECORDING_HEADER) {
      throw FileFault{record.offset, "the first record is no header"};
    }
    read_header(record);
    for (unsigned left = 2 * RECORDING_CHANNELS; left > 0; --left) {
      record = record_at(record.end);
      if (record.number == RECORDING_SCHEMA) {
        read_schema(record);
      } else if (record.number == RECORDING_CHANNEL) {
        read_channel(record);
      } else {
        throw FileFault{record.offset, "a schema or channel is missing"};
      }
    }
    return record.end;
  }

  // ---- Chunks ----

  ContainedMessage read_message(const Record& record) const {
    if (record.number != RECORDING_MESSAGE) {
      throw FileFault{record.offset, "the chunk holds a record that is no message"};
    }
    FileCursor cursor(bytes_, record.begin, record.end);
    ContainedMessage message;
    message.channel = cursor.value<std::uint16_t>();
    message.sequence = cursor.value<std::uint32_t>();
    message.log_time = cursor.value<std::uint64_t>();
    message.publish_time = cursor.value<std::uint64_t>();
    message.offset = cursor.offset();
    message.size = cursor.left();
    schema_of(message.channel, record.begin);
    return message;
  }

  ContainedChunk read_chunk(const Record& record) {
    ContainedChunk chunk;
    chunk.offset = record.offset;
    chunk.end = record.end;
    FileCursor cursor(bytes_, record.begin, record.end);
    const std::uint64_t first_time = cursor.value<std::uint64_t>();
    const std::uint64_t last_time = cursor.value<std::uint64_t>();
    const std::uint64_t size = cursor.value<std::uint64_t>();
    const std::uint32_t crc = cursor.value<std::uint32_t>();
    if (cursor.value<std::uint32_t>() != 0) {
      throw FileFault{cursor.offset() - 4,
                      "the chunk is compressed, which the recorder never does"};
    }
    if (cursor.value<std::uint64_t>() != cursor.left() || size != cursor.left()) {
      throw FileFault{record.begin + 16, "the sizes of the chunk contradict each other"};
    }
    looked_at_ += cursor.left();
    if (crc32_of(bytes_ + cursor.offset(), cursor.left()) != crc) {
      throw FileFault{record.offset, "the chunk is damaged: its CRC is wrong"};
    }
    for (std::size_t at = cursor.offset(); at < record.end;) {
      const Record inner = record_at(at);
      if (inner.end > record.end) {
        throw FileFault{at, "the message reaches beyond its chunk"};
      }
      chunk.messages.push_back(read_message(inner));
      at = inner.end;
    }
    const auto [first, last] =
        std::minmax_element(chunk.messages.begin(), chunk.messages.end(),
                            [](const auto& a, const auto& b) { return a.log_time < b.log_time; });
    if (first == chunk.messages.end() || first->log_time != first_time ||
        last->log_time != last_time) {
      throw FileFault{record.begin, "the times of the chunk are not those of its messages"};
    }
    return chunk;
  }

  using Index = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

  // Index records say again what the chunk says: time and place of each message, by channel.
  void read_index(const Record& record, const ContainedChunk& chunk) {
    const std::size_t first = chunk.offset + RECORDING_RECORD_HEADER + RECORDING_CHUNK_HEADER;
    FileCursor cursor(bytes_, record.begin, record.end);
    const std::uint16_t channel = cursor.value<std::uint16_t>();
    schema_of(channel, record.begin);
    if (!indexed_.insert(channel).second) {
      throw FileFault{record.offset, "a second message index of a channel"};
    }
    Index found;
    if (cursor.value<std::uint32_t>() != cursor.left()) {
      throw FileFault{record.begin + 2, "the size of the message index is wrong"};
    }
    while (cursor.left() > 0) {
      const std::uint64_t time = cursor.value<std::uint64_t>();
      found.emplace_back(time, cursor.value<std::uint64_t>());
    }
    Index wanted;
    for (const ContainedMessage& message : chunk.messages) {
      if (message.channel == channel) {
        wanted.emplace_back(message.log_time, message.offset - RECORDING_RECORD_HEADER -
                                                  RECORDING_MESSAGE_HEADER - first);
      }
    }
    if (found != wanted) {
      throw FileFault{record.offset, "the message index is not that of its chunk"};
    }
  }

  // Reads chunks from *next on, which is moved behind each whole record, and what follows them.
  void read_data(std::size_t* next) {
    while (*next < size_) {
      const Record record = record_at(*next);
      switch (record.number) {
        case RECORDING_CHUNK:
          container_.chunks.push_back(read_chunk(record));
          indexed_.clear();
          break;
        case RECORDING_MESSAGE_INDEX:
          if (container_.chunks.empty()) {
            throw FileFault{record.offset, "a message index without a chunk"};
          }
          read_index(record, container_.chunks.back());
          container_.chunks.back().end = record.end;
          break;
        case RECORDING_DATA_END:
          read_end(record);
          return;
        default:
          throw FileFault{record.offset, "record " + std::to_string(record.number) +
                                             " is none that the recorder writes here"};
      }
      *next = record.end;
    }
  }

  // ---- Behind the data ----

  void expect_crc(std::size_t begin, std::size_t end) const {
    const std::uint32_t crc = FileCursor(bytes_, end, end + 4).value<std::uint32_t>();
    // 0: it was not computed.
    if (crc != 0 && crc32_of(bytes_ + begin, end - begin) != crc) {
      throw FileFault{end, "the CRC of the summary is wrong"};
    }
  }

  void read_end(const Record& data_end) {
    if (data_end.end - data_end.begin != 4) {
      throw FileFault{data_end.offset, "the end of the data has a wrong size"};
    }
    if (FileCursor(bytes_, data_end.begin, data_end.end).value<std::uint32_t>() != 0) {
      throw FileFault{data_end.begin,
                      "the end of the data has a CRC, which the recorder never writes"};
    }
    container_.is_ended = true;
    Record record = record_at(data_end.end);
    while (record.number == RECORDING_SCHEMA || record.number == RECORDING_CHANNEL ||
           record.number == RECORDING_STATISTICS || record.number == RECORDING_CHUNK_INDEX) {
      record = record_at(record.end);
    }
    if (record.number != RECORDING_FOOTER || record.end - record.begin != 20) {
      throw FileFault{record.offset, "the footer is missing"};
    }
    const std::uint64_t summary =
        FileCursor(bytes_, record.begin, record.end).value<std::uint64_t>();
    if (summary != (record.offset == data_end.end ? 0 : data_end.end)) {
      throw FileFault{record.begin, "the footer does not name the summary"};
    }
    expect_crc(data_end.end, record.end - 4);
    if (size_ - record.end != RECORDING_MAGIC_SIZE ||
        std::memcmp(bytes_ + record.end, RECORDING_MAGIC, RECORDING_MAGIC_SIZE) != 0) {
      throw FileFault{record.end, "the file does not end behind its footer",
                      size_ - record.end < RECORDING_MAGIC_SIZE};
    }
  }

  // ---- Recovery ----

  bool is_whole_chunk(std::size_t offset) {
    try {
      const Record record = record_at(offset);
      return record.number == RECORDING_CHUNK && !read_chunk(record).messages.empty();
    } catch (const FileFault&) {
      return false;
    }
  }

  // Notes the damage; returns the offset of the next whole chunk, or the file's size.
  std::size_t recover(const FileFault& fault, std::size_t from) {
    std::size_t next = std::max(from, std::min(fault.offset, size_));
    while (next < size_ && !(bytes_[next] == RECORDING_CHUNK && is_whole_chunk(next))) {
      ++next;
      if (looked_at_ / kMostLooks > size_) {
        container_.damages.push_back(
            {fault.offset, size_, false,
             fault.what + "; what follows was not made by a recorder, and is not looked through"});
        return size_;
      }
    }
    container_.damages.push_back({fault.offset, next, fault.is_cut && next == size_, fault.what});
    return next;
  }

  const std::string& name_;
  const unsigned char* bytes_;
  std::size_t size_;
  std::size_t looked_at_ = 0;        // bytes of chunks whose CRC was computed
  std::set<std::uint16_t> indexed_;  // channels of the last chunk
  Container container_;
};

}  // namespace

std::uint32_t crc32_of(const unsigned char* bytes, std::size_t size) {
  uLong crc = 0;
  while (size > 0) {
    const uInt part = static_cast<uInt>(std::min<std::size_t>(size, 1u << 30));
    crc = crc32(crc, bytes, part);
    bytes += part;
    size -= part;
  }
  return static_cast<std::uint32_t>(crc);
}

Container read_container(const std::string& name, const unsigned char* bytes, std::size_t size,
                         Recovery recovery) {
  return Reader(name, bytes, size).read(recovery);
}

}  // namespace olvex_tools
