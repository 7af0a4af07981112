// recording_writer.cpp - records of the container, from the header to the footer.
#include "tools/recordings/recording_writer.h"

#include <algorithm>

#include <sys/stat.h>

#include "tools/recordings/container.h"

namespace olvex_tools {

namespace {

template <typename Value>
void append(Bytes* bytes, Value value) {
  for (std::size_t k = 0; k < sizeof(Value); ++k) {
    bytes->push_back(static_cast<unsigned char>(static_cast<std::uint64_t>(value) >> (8 * k)));
  }
}

void append(Bytes* bytes, const std::string& text) {
  append(bytes, static_cast<std::uint32_t>(text.size()));
  bytes->insert(bytes->end(), text.begin(), text.end());
}

void append(Bytes* bytes, const Bytes& more) {
  bytes->insert(bytes->end(), more.begin(), more.end());
}

void append_record(Bytes* bytes, unsigned char number, const Bytes& contents) {
  append(bytes, number);
  append(bytes, std::uint64_t{contents.size()});
  append(bytes, contents);
}

void append_magic(Bytes* bytes) {
  for (std::size_t k = 0; k < RECORDING_MAGIC_SIZE; ++k) {
    bytes->push_back(static_cast<unsigned char>(RECORDING_MAGIC[k]));
  }
}

Bytes header() {
  Bytes bytes;
  append(&bytes, std::string());
  append(&bytes, "olvex_recorder " + std::to_string(RECORDING_FORMAT));
  return bytes;
}

void append_definitions(Bytes* bytes) {
  for (std::uint16_t k = 1; k <= RECORDING_CHANNELS; ++k) {
    const recording_schema& schema = recording_schemas[k - 1];
    Bytes contents;
    append(&contents, k);
    append(&contents, std::string(schema.name));
    append(&contents, std::string("ros1msg"));
    append(&contents, std::string(schema.text));
    append_record(bytes, RECORDING_SCHEMA, contents);
  }
  for (std::uint16_t k = 1; k <= RECORDING_CHANNELS; ++k) {
    Bytes contents;
    append(&contents, k);
    append(&contents, k);
    append(&contents, std::string(recording_schemas[k - 1].topic));
    append(&contents, std::string("ros1"));
    append(&contents, std::uint32_t{0});
    append_record(bytes, RECORDING_CHANNEL, contents);
  }
}

Bytes message_record(const MessageToWrite& message) {
  Bytes bytes;
  append(&bytes, message.channel);
  append(&bytes, message.sequence);
  append(&bytes, message.log_time);
  append(&bytes, message.publish_time);
  append(&bytes, message.data);
  return bytes;
}

Bytes chunk_record(std::uint64_t first_time, std::uint64_t last_time, const Bytes& records) {
  Bytes bytes;
  append(&bytes, first_time);
  append(&bytes, last_time);
  append(&bytes, std::uint64_t{records.size()});
  append(&bytes, crc32_of(records.data(), records.size()));
  append(&bytes, std::uint32_t{0});  // not compressed
  append(&bytes, std::uint64_t{records.size()});
  append(&bytes, records);
  return bytes;
}

// Files that are made from here on are their owner's.
const std::string& for_owner_only(const std::string& path) {
  umask(S_IRWXG | S_IRWXO);
  return path;
}

}  // namespace

RecordingWriter::RecordingWriter(const std::string& path)
    : file_(for_owner_only(path), nullptr, OutputForm::kWhole) {
  Bytes bytes;
  append_magic(&bytes);
  append_record(&bytes, RECORDING_HEADER, header());
  append_definitions(&bytes);
  write(bytes);
}

void RecordingWriter::write(const Bytes& bytes) {
  file_.write(std::string(bytes.begin(), bytes.end()));
  written_ += bytes.size();
}

void RecordingWriter::add_chunk(const std::vector<MessageToWrite>& messages) {
  if (messages.empty()) {
    return;
  }
  ChunkEntry entry;
  entry.offset = written_;
  entry.first_time = messages.front().log_time;
  Bytes records;
  std::array<Bytes, RECORDING_CHANNELS> indexes;
  for (const MessageToWrite& message : messages) {
    entry.first_time = std::min(entry.first_time, message.log_time);
    entry.last_time = std::max(entry.last_time, message.log_time);
    append(&indexes[message.channel - 1u], message.log_time);
    append(&indexes[message.channel - 1u], std::uint64_t{records.size()});
    ++counts_[message.channel - 1u];
    append_record(&records, RECORDING_MESSAGE, message_record(message));
  }
  Bytes bytes;
  append_record(&bytes, RECORDING_CHUNK, chunk_record(entry.first_time, entry.last_time, records));
  entry.size = bytes.size();
  entry.bytes = records.size();
  for (std::uint16_t k = 0; k < RECORDING_CHANNELS; ++k) {
    if (!indexes[k].empty()) {
      entry.indexes[k] = written_ + bytes.size();
      Bytes index;
      append(&index, static_cast<std::uint16_t>(k + 1));
      append(&index, static_cast<std::uint32_t>(indexes[k].size()));
      append(&index, indexes[k]);
      append_record(&bytes, RECORDING_MESSAGE_INDEX, index);
    }
  }
  entry.index_size = bytes.size() - entry.size;
  chunks_.push_back(entry);
  write(bytes);
}

Bytes RecordingWriter::statistics() const {
  std::uint64_t messages = 0;
  Bytes counts;
  for (std::uint16_t k = 0; k < RECORDING_CHANNELS; ++k) {
    messages += counts_[k];
    append(&counts, static_cast<std::uint16_t>(k + 1));
    append(&counts, counts_[k]);
  }
  std::uint64_t first = chunks_.empty() ? 0 : chunks_.front().first_time;
  std::uint64_t last = 0;
  for (const ChunkEntry& chunk : chunks_) {
    first = std::min(first, chunk.first_time);
    last = std::max(last, chunk.last_time);
  }
  Bytes bytes;
  append(&bytes, messages);
  append(&bytes, static_cast<std::uint16_t>(RECORDING_CHANNELS));
  append(&bytes, std::uint32_t{RECORDING_CHANNELS});
  append(&bytes, std::uint64_t{0});  // attachments and metadata
  append(&bytes, static_cast<std::uint32_t>(chunks_.size()));
  append(&bytes, first);
  append(&bytes, last);
  append(&bytes, static_cast<std::uint32_t>(counts.size()));
  append(&bytes, counts);
  return bytes;
}

Bytes RecordingWriter::chunk_index(const ChunkEntry& chunk) {
  Bytes offsets;
  for (std::uint16_t k = 0; k < RECORDING_CHANNELS; ++k) {
    if (chunk.indexes[k] != 0) {
      append(&offsets, static_cast<std::uint16_t>(k + 1));
      append(&offsets, chunk.indexes[k]);
    }
  }
  Bytes bytes;
  append(&bytes, chunk.first_time);
  append(&bytes, chunk.last_time);
  append(&bytes, chunk.offset);
  append(&bytes, chunk.size);
  append(&bytes, static_cast<std::uint32_t>(offsets.size()));
  append(&bytes, offsets);
  append(&bytes, chunk.index_size);
  append(&bytes, std::uint32_t{0});  // not compressed
  append(&bytes, chunk.bytes);
  append(&bytes, chunk.bytes);
  return bytes;
}

void RecordingWriter::finish() {
  Bytes data_end;
  append_record(&data_end, RECORDING_DATA_END, Bytes(4));
  write(data_end);
  Bytes bytes;
  append_definitions(&bytes);
  append_record(&bytes, RECORDING_STATISTICS, statistics());
  for (const ChunkEntry& chunk : chunks_) {
    append_record(&bytes, RECORDING_CHUNK_INDEX, chunk_index(chunk));
  }
  append(&bytes, static_cast<unsigned char>(RECORDING_FOOTER));
  append(&bytes, std::uint64_t{20});
  append(&bytes, written_);          // where the summary begins
  append(&bytes, std::uint64_t{0});  // its parts have no index
  append(&bytes, crc32_of(bytes.data(), bytes.size()));
  append_magic(&bytes);
  write(bytes);
  file_.close();
}

}  // namespace olvex_tools
