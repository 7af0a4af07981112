// SPDX-License-Identifier: Apache-2.0
// file_source.cpp - frames from files, one each: pictures, or frames that the library dumped.
// Declared in frame_source.h.
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <system_error>
#include <utility>

#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/frames/codec_modules.h"
#include "tools/frames/frame_source.h"

namespace olvex_tools {

namespace fs = std::filesystem;

namespace {

void require_readable(const fs::path& path) {
  errno = 0;
  if (!std::ifstream(path, std::ios::binary)) {
    refuse_input(path, std::string("cannot be opened: ") + std::strerror(errno));
  }
}

std::vector<unsigned char> bytes_of(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

constexpr unsigned char kMarker = 0xff;
constexpr unsigned char kStartOfImage = 0xd8;
constexpr unsigned char kEndOfImage = 0xd9;
constexpr unsigned char kFirstRestart = 0xd0;
constexpr unsigned char kLastRestart = 0xd7;
constexpr unsigned char kTemporary = 0x01;

// Inside of coded data a marker byte is followed by zero, by itself, or by a restart's number.
bool is_segment(unsigned char code) {
  return code != 0 && code != kMarker && code != kTemporary &&
         !(code >= kFirstRestart && code <= kLastRestart);
}

// The code of the next segment from *position on, which moves past it; 0 at the end of the bytes.
unsigned char next_segment(const std::vector<unsigned char>& bytes, std::size_t* position) {
  while (*position + 1 < bytes.size()) {
    const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(*position);
    *position = static_cast<std::size_t>(std::find(from, bytes.end(), kMarker) - bytes.begin());
    if (*position + 1 < bytes.size() && is_segment(bytes[*position + 1])) {
      *position += 2;
      return bytes[*position - 1];
    }
    ++*position;
  }
  return 0;
}

// Whether a JPEG file ends before its end marker, which the decoder does not report: it fills what is missing
// with grey. A thumbnail inside a segment has its own end marker, and cameras put data after the
// picture's, so it goes from marker to marker. False for any other file.
bool is_cut_jpeg(const std::vector<unsigned char>& bytes) {
  if (bytes.size() < 3 || bytes[0] != kMarker || bytes[1] != kStartOfImage || bytes[2] != kMarker) {
    return false;
  }
  std::size_t position = 2;
  for (;;) {
    const unsigned char code = next_segment(bytes, &position);
    if (code == 0 || code == kEndOfImage) {
      return code == 0;
    }
    if (position + 1 >= bytes.size()) {
      return true;
    }
    position += static_cast<std::size_t>(bytes[position]) << 8 | bytes[position + 1];
  }
}

// COCO names pictures by their image ids (000000000139.jpg). When every name is a number and no two
// are equal, those are the ids; otherwise the frame numbers are.
std::vector<std::uint64_t> image_ids(const std::vector<fs::path>& paths) {
  std::vector<std::uint64_t> ids;
  for (const fs::path& path : paths) {
    const std::string stem = path.stem().string();
    std::uint64_t id = 0;
    const auto parsed = std::from_chars(stem.data(), stem.data() + stem.size(), id);
    if (parsed.ec != std::errc() || parsed.ptr != stem.data() + stem.size()) {
      break;
    }
    ids.push_back(id);
  }
  if (ids.size() != paths.size() ||
      std::set<std::uint64_t>(ids.begin(), ids.end()).size() != ids.size()) {
    ids.resize(paths.size());
    for (std::size_t i = 0; i < ids.size(); ++i) {
      ids[i] = i + 1;
    }
  }
  return ids;
}

using ReadFile = std::function<void(const fs::path&, SourceFrame*)>;

class FileSource : public FrameSource {
 public:
  FileSource(std::vector<fs::path> paths, double frames_per_second, ReadFile read)
      : paths_(std::move(paths)),
        image_ids_(image_ids(paths_)),
        rate_(frames_per_second),
        read_(std::move(read)) {}

  bool next(SourceFrame* frame) override {
    const std::size_t index = position_;
    if (!skip()) {
      return false;
    }
    frame->image_id = image_ids_[index];
    frame->number = static_cast<long>(position_);
    frame->pts = time_stamp(frame->number, rate_);
    frame->name = paths_[index].string();
    require_readable(paths_[index]);
    read_(paths_[index], frame);
    return true;
  }

  bool skip() override {
    const bool more = position_ < paths_.size();
    position_ += more ? 1 : 0;
    return more;
  }
  void skip_until(std::uint64_t pts) override {
    while (time_stamp(position() + 1, rate_) < pts && skip()) {
    }
  }
  long position() const override { return static_cast<long>(position_); }
  std::optional<long> length() const override { return static_cast<long>(paths_.size()); }
  double frames_per_second() const override { return rate_; }

 private:
  std::vector<fs::path> paths_;
  std::vector<std::uint64_t> image_ids_;
  double rate_;
  ReadFile read_;
  std::size_t position_ = 0;
};

void read_picture(const fs::path& path, SourceFrame* frame) {
  const std::vector<unsigned char> bytes = bytes_of(path);
  try {
    frame->picture = decode_picture(bytes);
  } catch (const cv::Exception& error) {
    refuse_input(path, "cannot be read as a picture: " + error.err);
  }
  if (frame->picture.empty()) {
    refuse_input(path,
                 "cannot be read as a picture; it is damaged or of another kind than "
                 "its name says");
  }
  if (is_cut_jpeg(bytes)) {
    refuse_input(path, "is cut: the file ends before the picture does");
  }
}

void read_dump(const fs::path& path, const FrameLayout& layout, SourceFrame* frame) {
  std::error_code error;
  const std::uintmax_t size = fs::file_size(path, error);
  if (error) {
    refuse_input(path, "its size cannot be told: " + error.message());
  }
  if (size != layout.size) {
    refuse_input(path, "has " + counted(size, "byte", "bytes") + ", but a frame of this model is " +
                           describe(layout) + ". It was dumped for another model or is cut");
  }
  frame->dump.resize(layout.size);
  std::ifstream file(path, std::ios::binary);
  if (!file.read(reinterpret_cast<char*>(frame->dump.data()),
                 static_cast<std::streamsize>(frame->dump.size()))) {
    refuse_input(path, "cannot be read");
  }
}

}  // namespace

std::unique_ptr<FrameSource> make_picture_source(std::vector<fs::path> paths,
                                                 double frames_per_second) {
  return std::make_unique<FileSource>(std::move(paths), frames_per_second, read_picture);
}

std::unique_ptr<FrameSource> make_dump_source(std::vector<fs::path> paths,
                                              const FrameLayout& layout, double frames_per_second) {
  return std::make_unique<FileSource>(
      std::move(paths), frames_per_second,
      [layout](const fs::path& path, SourceFrame* frame) { read_dump(path, layout, frame); });
}

}  // namespace olvex_tools
