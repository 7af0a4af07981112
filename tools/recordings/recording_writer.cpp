// SPDX-License-Identifier: Apache-2.0
// recording_writer.cpp - records of the container, from the header to the footer.
#include "tools/recordings/recording_writer.h"

#include <algorithm>
#include <utility>

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

Bytes header(const std::string& library) {
  Bytes bytes;
  append(&bytes, std::string());
  append(&bytes, library);
  return bytes;
}

std::vector<ChannelToWrite> recorded_channels() {
  std::vector<ChannelToWrite> channels;
  for (const recording_schema& schema : recording_schemas) {
    channels.push_back({schema.topic, schema.name, schema.text});
  }
  return channels;
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
    : RecordingWriter(path, "olvex_recorder " + std::to_string(RECORDING_FORMAT),
                      recorded_channels()) {}

RecordingWriter::RecordingWriter(const std::string& path, const std::string& library,
                                 std::vector<ChannelToWrite> channels)
    : file_(for_owner_only(path), nullptr, OutputForm::kWhole),
      channels_(std::move(channels)),
      counts_(channels_.size()) {
  Bytes bytes;
  append_magic(&bytes);
  append_record(&bytes, RECORDING_HEADER, header(library));
  append_definitions(&bytes);
  write(bytes);
}

void RecordingWriter::append_definitions(Bytes* bytes) const {
  for (std::size_t k = 0; k < channels_.size(); ++k) {
    Bytes contents;
    append(&contents, static_cast<std::uint16_t>(k + 1));
    append(&contents, channels_[k].schema);
    append(&contents, std::string("ros1msg"));
    append(&contents, channels_[k].definition);
    append_record(bytes, RECORDING_SCHEMA, contents);
  }
  for (std::size_t k = 0; k < channels_.size(); ++k) {
    Bytes contents;
    append(&contents, static_cast<std::uint16_t>(k + 1));
    append(&contents, static_cast<std::uint16_t>(k + 1));
    append(&contents, channels_[k].topic);
    append(&contents, std::string("ros1"));
    append(&contents, std::uint32_t{0});
    append_record(bytes, RECORDING_CHANNEL, contents);
  }
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
  std::vector<Bytes> indexes(channels_.size());
  entry.indexes.resize(channels_.size());
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
  for (std::size_t k = 0; k < indexes.size(); ++k) {
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
  for (std::size_t k = 0; k < counts_.size(); ++k) {
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
  append(&bytes, static_cast<std::uint16_t>(channels_.size()));
  append(&bytes, static_cast<std::uint32_t>(channels_.size()));
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
  for (std::size_t k = 0; k < chunk.indexes.size(); ++k) {
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
